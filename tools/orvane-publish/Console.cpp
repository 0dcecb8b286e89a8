#include "Console.h"

#include "Text.h"

#include <algorithm>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace orvpub {
namespace {

double Since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// "37%  1.5 MiB / 4.0 MiB  12.3 MiB/s  ETA 0:03"
std::string Figures(uint64_t sent, uint64_t total, double rate)
{
    const std::string percent = total ? Printf("%3u%%", static_cast<unsigned>(sent * 100 / total)) : "  -%";
    const std::string eta = rate > 0 && total >= sent ? FormatClock((total - sent) / rate) : "-:--";
    return percent + "  " + FormatBytes(static_cast<double>(sent)) + " / " + FormatBytes(static_cast<double>(total)) +
           "  " + FormatRate(rate) + "  ETA " + eta;
}

} // namespace

Console::Console(bool meter, bool combined, bool stdoutLines, size_t files, uint64_t bytes)
    : m_meter(meter), m_combined(combined), m_stdoutLines(stdoutLines), m_files(files), m_bytes(bytes)
{
}

void Console::Out(const std::string& line)
{
    if (!m_stdoutLines)
        return;
    std::lock_guard<std::mutex> lock(m_lock);
    WipeLocked();
    const bool written = std::fprintf(stdout, "%s\n", Printable(line).c_str()) >= 0;
    if (std::fflush(stdout) != 0 || !written)
        m_outputLost = true;
}

bool Console::OutputLost()
{
    std::lock_guard<std::mutex> lock(m_lock);
    return m_outputLost || std::ferror(stdout);
}

void Console::Err(const std::string& line)
{
    std::lock_guard<std::mutex> lock(m_lock);
    WipeLocked();
    std::fflush(stdout);
    std::fprintf(stderr, "orvane-publish: %s\n", Printable(line).c_str());
}

void Console::Start(Transfer& transfer)
{
    transfer.sent = 0;
    transfer.total = 0;
    transfer.start = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_done == 0 && m_active.empty())
        m_start = transfer.start;
    m_active.push_back(&transfer);
}

void Console::Finish(Transfer& transfer)
{
    std::lock_guard<std::mutex> lock(m_lock);
    m_active.erase(std::remove(m_active.begin(), m_active.end(), &transfer), m_active.end());
    ++m_done;
    m_doneBytes += transfer.bytes;
    if (m_active.empty())
        WipeLocked();
}

std::string Console::Line() const
{
    if (!m_combined) {
        const Transfer& t = *m_active.front();
        const double seconds = Since(t.start);
        return t.label + "  " + Figures(t.sent, t.total, seconds > 0 ? t.sent / seconds : 0);
    }
    // The whole batch: files finished count whole, running ones as far as sent.
    uint64_t sent = m_doneBytes;
    for (const Transfer* t : m_active)
        sent += std::min<uint64_t>(t->sent, t->bytes);
    const double seconds = Since(m_start);
    return Printf("%zu running, %zu of %zu files  ", m_active.size(), m_done, m_files) +
           Figures(sent, m_bytes, seconds > 0 ? sent / seconds : 0);
}

void Console::Draw()
{
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_meter || m_active.empty())
        return;
    std::string line = Line();
    winsize size{};
    // Never wider than the terminal: a wrapped line cannot be redrawn in place.
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 && line.size() >= size.ws_col)
        line.resize(size.ws_col - 1);
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
    m_shown = true;
}

void Console::Wipe()
{
    std::lock_guard<std::mutex> lock(m_lock);
    WipeLocked();
}

void Console::WipeLocked()
{
    if (!m_shown)
        return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    m_shown = false;
}

} // namespace orvpub
