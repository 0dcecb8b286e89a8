#include "logging/Logger.h"

#include "logging/msec.h"

namespace OrvaneInternal {

namespace {

// Accepts everything and writes nothing; stands in until a logger is installed.
class NullLogger : public Logger {
  public:
    void Run() override {}
    void QueueMessage(std::wistream&) override {}
    void QueueMessage(std::istream&) override {}
    void QueueMessage(const std::wstring&) override {}
    void QueueMessage(const std::string&) override {}
    void Flush() override {}
    void QueueStop() override {}
    const std::wstring& GetBaseFilePath() const override
    {
        static const std::wstring* const empty = new std::wstring(); // lives for the process
        return *empty;
    }
};

} // namespace

RefCntPtr<Logger> Logger::s_instance;

void Logger::Init(RefCntPtr<Logger> logger)
{
    // The copy-assignment takes the new reference before dropping the old one,
    // so re-installing the installed logger is safe.
    s_instance = logger;
}

RefCntPtr<Logger> Logger::Get()
{
    RefCntPtr<Logger> current = s_instance;
    if (current)
        return current;
    // One stand-in for the process, made once (thread-safe) and never freed.
    // Get never writes the slot: two first callers on different threads would
    // race on it.
    static const RefCntPtr<Logger>* const standIn = new RefCntPtr<Logger>(new NullLogger());
    return *standIn;
}

std::ostream& operator<<(std::ostream& out, const msec& value)
{
    const std::streamsize precision = out.precision();
    const std::ios_base::fmtflags flags = out.flags();
    out.setf(std::ios_base::fixed, std::ios_base::floatfield);
    out.precision(3);
    out << value.value;
    out.precision(precision);
    out.flags(flags);
    return out;
}

} // namespace OrvaneInternal
