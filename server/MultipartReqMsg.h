// A request message whose body is the XML part plus one file part.
#pragma once

#include "server/ReqMsg.h"

namespace OrvaneInternal {

class MultipartReqMsg : public ReqMsg {
  public:
    using ReqMsg::ReqMsg;

    const MultipartReqMsg* AsMultipart() const override { return this; }

    // Local path of the file to upload.
    virtual std::wstring GetPath() const = 0;
    // Form-data name of the file part.
    virtual std::string GetFormat() const = 0;
};

} // namespace OrvaneInternal
