// Turning request messages into HTTP requests, and replies back into text.
#pragma once

#include "server/ReqMsg.h"

#include <memory>
#include <string>

namespace OrvaneInternal {

class BufferReply;

// The HTTP request for `msg`; empty for ReqType None. A Multipart message must
// be a MultipartReqMsg. Request constructors' errors (e.g. a file that cannot
// be opened) pass through.
std::shared_ptr<RestRequest> ConvertReqMsg(const ReqMsg& msg);

// The bytes the reply collected, unconverted; "" for RepType Unknown.
std::string ConvertRestReply(const BufferReply& reply, const ReqMsg::RepType& type);

} // namespace OrvaneInternal
