// One certificate from a platform certificate store, parsed by Qt. The
// transport offers every loaded certificate to each TLS handshake on top of
// libcurl's default CA bundle.
#pragma once

#include <QtNetwork/QSslCertificate>

#include <functional>
#include <string>
#include <vector>

typedef struct x509_st X509;

namespace OrvaneInternal {

class Certificate {
  public:
    enum EncodingFormat { Pem = QSsl::Pem, Der = QSsl::Der };
    enum SubjectInfo {
        Organization = QSslCertificate::Organization,
        CommonName = QSslCertificate::CommonName,
        LocalityName = QSslCertificate::LocalityName,
        OrganizationalUnitName = QSslCertificate::OrganizationalUnitName,
        CountryName = QSslCertificate::CountryName,
        StateOrProvinceName = QSslCertificate::StateOrProvinceName,
    };

    // A parse failure gives a null certificate, not an exception.
    Certificate(const std::vector<unsigned char>& data, EncodingFormat format);

    // Owned by this Certificate; null for a certificate that did not parse.
    X509* AsX509();
    // False before the effective date, after the expiry date (both inclusive
    // bounds count as valid) and for a blacklisted certificate.
    bool IsValid() const;
    // The first value of the attribute, or "" when absent.
    std::wstring GetSubjectInfo(SubjectInfo info) const;

    // Loads one named platform store ("My", "Root", "CA"). This platform has
    // no named stores: it succeeds and loads nothing, unless a test has put a
    // loader in s_storeLoader.
    static bool TryLoadCertificates(const std::wstring& storeName, std::vector<Certificate>& certificates);
    static std::function<bool(const std::wstring&, std::vector<Certificate>&)> s_storeLoader;

  private:
    QSslCertificate m_certificate;
};

} // namespace OrvaneInternal
