// The upload of one extract: a multipart POST to the site's data sources,
// with "?overwrite=true" only when overwriting.
#pragma once

#include "server/MultipartReqMsg.h"

namespace OrvaneInternal {

class PublishExtReqMsg : public MultipartReqMsg {
  public:
    PublishExtReqMsg(const std::wstring& serverUrl, const std::wstring& siteId, const std::wstring& token,
                     const std::wstring& path, const std::wstring& projectId, const std::wstring& dataSourceName,
                     bool overwrite);
    ~PublishExtReqMsg() override = default;

    std::wstring GetUrl() const override;
    // The request_payload document; values go in verbatim, unescaped.
    std::wstring GetXml() const override;
    std::wstring GetPath() const override;
    std::string GetFormat() const override;

    const std::wstring m_path;
    const std::wstring m_projectId;
    const std::wstring m_dataSourceName;
    const bool m_overwrite;
};

} // namespace OrvaneInternal
