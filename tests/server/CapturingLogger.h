// A logger that keeps every queued line in order, wide lines marked "W " and
// narrow ones "N " (wide text shown as UTF-8), so tests can compare the whole
// log of an operation at once.
#pragma once

#include "logging/Logger.h"
#include "sys/Unicode.h"

#include <iterator>
#include <string>
#include <vector>

namespace OrvaneTest {

class CapturingLogger : public OrvaneInternal::Logger {
public:
    void Run() override {}
    void QueueMessage(std::wistream& in) override
    {
        QueueMessage(std::wstring(std::istreambuf_iterator<wchar_t>(in), std::istreambuf_iterator<wchar_t>()));
    }
    void QueueMessage(std::istream& in) override
    {
        QueueMessage(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
    }
    void QueueMessage(const std::wstring& message) override
    {
        m_lines.push_back("W " + Unicode::ToUTF8(message).str());
    }
    void QueueMessage(const std::string& message) override { m_lines.push_back("N " + message); }
    void Flush() override {}
    void QueueStop() override {}
    const std::wstring& GetBaseFilePath() const override { return m_path; }

    // Returns the lines so far and forgets them.
    std::vector<std::string> Take()
    {
        std::vector<std::string> lines;
        lines.swap(m_lines);
        return lines;
    }

    std::vector<std::string> m_lines;

private:
    std::wstring m_path;
};

// Installs a fresh capturing logger for the scope's life.
class CapturingLoggerScope {
public:
    CapturingLoggerScope() : logger(new CapturingLogger()) { OrvaneInternal::Logger::Init(logger); }
    ~CapturingLoggerScope() { OrvaneInternal::Logger::Init(RefCntPtr<OrvaneInternal::Logger>()); }
    CapturingLoggerScope(const CapturingLoggerScope&) = delete;
    CapturingLoggerScope& operator=(const CapturingLoggerScope&) = delete;

    RefCntPtr<CapturingLogger> logger;
};

}  // namespace OrvaneTest
