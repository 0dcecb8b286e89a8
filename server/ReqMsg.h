// A request message: one REST call described by its URL, its XML body and
// three settings that steer how it becomes an HTTP request. Subclasses set
// every field once in their constructor.
#pragma once

#include "rest/RestRequest.h"

#include <cstdint>
#include <string>

namespace OrvaneInternal {

class MultipartReqMsg;

class ReqMsg {
  public:
    // Which kind of RestRequest the message becomes; any value other than
    // Buffer, None and Get is treated as Multipart.
    enum ReqType : int32_t { Buffer = 0, None = 1, Get = 2, Multipart = 3 };
    // How the reply is handed back; dispatch refuses Unknown.
    enum RepType : int32_t { Xml = 0, Unknown = 1 };

    ReqMsg(const std::wstring& host, const std::wstring& siteId, const std::wstring& token, ReqType reqType,
           RestRequest::Method method, RepType repType)
        : m_host(host), m_siteId(siteId), m_token(token), m_reqType(reqType), m_method(method), m_repType(repType)
    {
    }

    virtual std::wstring GetUrl() const { return std::wstring(); }
    virtual std::wstring GetXml() const { return std::wstring(); }
    // The file part's side of a Multipart message; null for other messages.
    virtual const MultipartReqMsg* AsMultipart() const { return nullptr; }
    virtual ~ReqMsg() = default;

    const std::wstring m_host;
    const std::wstring m_siteId;
    const std::wstring m_token;
    const ReqType m_reqType;
    const RestRequest::Method m_method;
    const RepType m_repType;
};

} // namespace OrvaneInternal
