#include "server/MessageConversion.h"

#include "rest/BufferReply.h"
#include "rest/BufferRequest.h"
#include "rest/GetRequest.h"
#include "rest/MultipartRequest.h"
#include "server/MultipartReqMsg.h"
#include "sys/Errors.h"
#include "sys/Unicode.h"

namespace OrvaneInternal {

std::shared_ptr<RestRequest> ConvertReqMsg(const ReqMsg& msg)
{
    auto xml = std::make_shared<std::string>(Unicode::ToUTF8(msg.GetXml()).str());
    const std::string url = Unicode::ToUTF8(msg.GetUrl()).str();
    const std::string token = Unicode::ToUTF8(msg.m_token).str();
    switch (msg.m_reqType) {
    case ReqMsg::None:
        return nullptr;
    case ReqMsg::Get:
        return std::make_shared<GetRequest>(RestRequest::Get, url, token);
    case ReqMsg::Buffer:
        return std::make_shared<BufferRequest>(msg.m_method, url, token, xml);
    default: {
        const auto* multipartMsg = msg.AsMultipart();
        if (multipartMsg == nullptr)
            ThrowLogicError(QRX_Status::InvalidArgument, "multipart request message without a file part");
        auto request = std::make_shared<MultipartRequest>(msg.m_method, url, token);
        request->AddBufferPayload(xml);
        request->AddFilePayload(multipartMsg->GetFormat(), Unicode::ToUTF8(multipartMsg->GetPath()).str());
        request->Finish();
        return request;
    }
    }
}

std::string ConvertRestReply(const BufferReply& reply, const ReqMsg::RepType& type)
{
    if (type == ReqMsg::Unknown)
        return std::string();
    return std::string(reply.m_data.data(), reply.m_data.size()); // one copy, not a loop over bytes
}

} // namespace OrvaneInternal
