// What orvane-publish writes: result lines on stdout, failures on stderr, and
// the progress meter, on stderr only when it is a terminal. One lock keeps
// them apart; the meter line is wiped before any other line is written.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace orvpub {

// One running upload, fed by the library's progress callback.
struct Transfer {
    std::string label;                       // printable
    uint64_t bytes = 0;                      // the file's size
    std::atomic<uint64_t> sent{0}, total{0}; // of the request body, envelope included
    std::chrono::steady_clock::time_point start;
};

class Console {
  public:
    // meter: draw the meter on stderr; combined: one line for the whole batch
    // of `files` files and `bytes` bytes. stdoutLines: print result lines on
    // stdout (off with -q and --json).
    Console(bool meter, bool combined, bool stdoutLines, size_t files, uint64_t bytes);

    // A line with its control characters escaped (see Printable).
    void Out(const std::string& line);
    bool OutputLost();                 // a line could not be written to stdout
    void Err(const std::string& line); // prefixed with "orvane-publish: "

    void Start(Transfer& transfer);
    void Finish(Transfer& transfer); // counts it as done
    void Draw();                     // redraws the meter (from the monitor thread)
    void Wipe();

  private:
    void WipeLocked();
    std::string Line() const;

    std::mutex m_lock;
    const bool m_meter, m_combined, m_stdoutLines;
    bool m_shown = false;
    bool m_outputLost = false;
    size_t m_done = 0;
    uint64_t m_doneBytes = 0; // of the files finished, failed ones included
    const size_t m_files;
    const uint64_t m_bytes;
    std::chrono::steady_clock::time_point m_start; // of the first transfer
    std::vector<Transfer*> m_active;
};

} // namespace orvpub
