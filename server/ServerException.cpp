#include "server/ServerException.h"

#include "sys/Unicode.h"

namespace OrvaneInternal {

std::string ServerException::getCharMessage() const
{
    return Unicode::ToUTF8(m_message).str();
}

} // namespace OrvaneInternal
