#include "network/Certificate.h"

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QStringList>

namespace OrvaneInternal {

std::function<bool(const std::wstring&, std::vector<Certificate>&)> Certificate::s_storeLoader;

Certificate::Certificate(const std::vector<unsigned char>& data, EncodingFormat format)
    : m_certificate(QByteArray(reinterpret_cast<const char*>(data.data()), static_cast<int>(data.size())),
                    static_cast<QSsl::EncodingFormat>(format))
{
}

X509* Certificate::AsX509()
{
    return static_cast<X509*>(m_certificate.handle());
}

bool Certificate::IsValid() const
{
    const QDateTime now = QDateTime::currentDateTime();
    if (now < m_certificate.effectiveDate())
        return false;
    if (m_certificate.expiryDate() < now)
        return false;
    return !m_certificate.isBlacklisted();
}

std::wstring Certificate::GetSubjectInfo(SubjectInfo info) const
{
    const QStringList values = m_certificate.subjectInfo(static_cast<QSslCertificate::SubjectInfo>(info));
    if (values.isEmpty())
        return std::wstring();
    return values.first().toStdWString();
}

bool Certificate::TryLoadCertificates(const std::wstring& storeName, std::vector<Certificate>& certificates)
{
    if (s_storeLoader)
        return s_storeLoader(storeName, certificates);
    return true;
}

} // namespace OrvaneInternal
