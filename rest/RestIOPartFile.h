// A body part streamed from a file. The file is opened and measured once, at
// construction, and stays open for the life of the part; reads go straight
// into the caller's buffer.
#pragma once

#include "rest/RestIOPart.h"

#include <string>

namespace OrvaneInternal {

class RestIOPartFile : public RestIOPart {
  public:
    // Throws RestIO::RestIOException "Failed to open file: " + path, also when
    // the path no longer names a regular file (it may have been swapped for
    // a pipe since it was checked).
    explicit RestIOPartFile(const std::string& path);
    ~RestIOPartFile() override;
    RestIOPartFile(const RestIOPartFile&) = delete;
    RestIOPartFile& operator=(const RestIOPartFile&) = delete;

    // Yields exactly the size measured at construction: a file that has grown
    // since is cut there; one that has shrunk, or any other failure, throws
    // RestIO::RestIOException "Failed to read from file: " + path.
    size_t Read(char* buffer, size_t size) override;
    size_t GetSize() override { return m_size; }
    bool Seek(size_t position) override;
    // Set only once a read has asked for more than is left, so a file read to
    // its exact size is not yet done.
    bool Done() override { return m_done; }
    // Equal when the other part is a file part over the same path.
    bool gmock_equal(const RestIOPart& other, const std::string& from, const std::string& to) const override;

    std::string m_path; // UTF-8 bytes, handed to open(2) as they are
    bool m_done;
    int m_fd = -1;
    size_t m_size;       // measured at construction
    size_t m_offset = 0; // read position, so that reads stop at m_size

  private:
    void OpenFile();
};

} // namespace OrvaneInternal
