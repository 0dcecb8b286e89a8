// Streams an upload body whose file part is large through RestIO::Read in
// 64 KiB chunks, as libcurl pulls it, and compares the throughput with a plain
// read(2) loop over the same file in the same run. Also prints the peak RSS
// after a small-file run and after the large runs: streaming must not make it
// grow with the file.
//
// The plain loop makes the same system calls as the body: its first read is
// short by the length of the multipart preamble and lands behind it in the
// buffer. That matters: the kernel's copy into user memory can run several
// times slower on some processors when the buffer address and the file offset
// are slightly out of step modulo 4 KiB, so a loop at other offsets would
// measure that quirk rather than RestIO. The buffer is page-aligned so that
// runs are repeatable.
//
// Usage: rest_bench [size-in-MiB (1024)] [rounds (5)] [directory (/tmp)]

#include "rest/MultipartRequest.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace OrvaneInternal;

namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr size_t kMiB = 1024 * 1024;

// A sparse file of `size` bytes, removed when the object goes.
class ScratchFile {
public:
    ScratchFile(const std::string& directory, const std::string& name, size_t size)
        : m_path(directory + "/" + name + "." + std::to_string(getpid()) + ".qrx")
    {
        const int fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0) {
            throw std::runtime_error("cannot create " + m_path);
        }
        const bool sized = ftruncate(fd, static_cast<off_t>(size)) == 0;
        close(fd);
        if (!sized) {
            unlink(m_path.c_str());
            throw std::runtime_error("cannot size " + m_path);
        }
    }
    ~ScratchFile() { unlink(m_path.c_str()); }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

long PeakRssKiB()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};
using Buffer = std::unique_ptr<char, FreeDeleter>;

std::unique_ptr<MultipartRequest> MakeUpload(const std::string& path)
{
    auto request = std::make_unique<MultipartRequest>(RestRequest::Post,
                                                      "https://127.0.0.1/api/2.0/sites/s/datasources", "token");
    request->AddBufferPayload(std::make_shared<std::string>("<tsRequest><datasource name=\"bench\"/></tsRequest>"));
    request->AddFilePayload("orvane_datasource", path);
    request->Finish();
    return request;
}

// Bytes of the body in front of the file: every part but the file and the closing boundary.
size_t Preamble(const RestIO& body)
{
    size_t total = 0;
    for (size_t i = 0; i + 2 < body.m_parts.size(); ++i) {
        total += body.m_parts[i]->GetSize();
    }
    return total;
}

// The publish body: XML part, then the file. Returns the bytes read.
size_t StreamBody(const std::string& path, char* buffer)
{
    const auto request = MakeUpload(path);
    const size_t expected = request->m_body.GetSize();
    size_t total = 0;
    for (size_t n; (n = request->m_body.Read(buffer, kChunk)) != 0;) {
        total += n;
    }
    if (total != expected) {
        throw std::runtime_error("body yielded " + std::to_string(total) + " bytes, announced " +
                                 std::to_string(expected));
    }
    return total;
}

// The file alone, read with the system calls the body makes for it.
size_t ReadPlain(const std::string& path, char* buffer, size_t preamble)
{
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        throw std::runtime_error("cannot open " + path);
    }
    size_t total = 0;
    ssize_t n = read(fd, buffer + preamble, kChunk - preamble);
    for (; n > 0; n = read(fd, buffer, kChunk)) {
        total += static_cast<size_t>(n);
    }
    close(fd);
    if (n < 0) {
        throw std::runtime_error("cannot read " + path);
    }
    return total;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 != 0 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

int Run(size_t sizeMiB, int rounds, const std::string& directory)
{
    Buffer buffer(static_cast<char*>(std::aligned_alloc(4096, kChunk)));
    if (!buffer) {
        throw std::runtime_error("out of memory");
    }

    {
        ScratchFile small(directory, "orv-bench-small", kMiB);
        StreamBody(small.Path(), buffer.get());
        std::printf("peak RSS after streaming a 1 MiB body: %ld KiB\n", PeakRssKiB());
    }

    ScratchFile big(directory, "orv-bench-big", sizeMiB * kMiB);
    const size_t preamble = Preamble(MakeUpload(big.Path())->m_body);
    ReadPlain(big.Path(), buffer.get(), preamble);  // warm the page cache so both sides read from memory
    std::vector<double> body;
    std::vector<double> plain;
    size_t bodyBytes = 0;
    size_t plainBytes = 0;
    for (int round = 0; round < 2 * rounds; ++round) {
        // Which side goes first alternates, so neither always follows the other.
        const auto start = std::chrono::steady_clock::now();
        if ((round + round / 2) % 2 == 0) {
            bodyBytes = StreamBody(big.Path(), buffer.get());
            body.push_back(Seconds(start));
        } else {
            plainBytes = ReadPlain(big.Path(), buffer.get(), preamble);
            plain.push_back(Seconds(start));
        }
    }
    const double bodyMedian = Median(body);
    const double plainMedian = Median(plain);
    std::printf("file %zu MiB, %d rounds, %zu KiB chunks, preamble %zu bytes\n", sizeMiB, rounds, kChunk / 1024,
                preamble);
    std::printf("RestIO::Read (multipart body): median %.3f s, %.0f MiB/s\n", bodyMedian,
                static_cast<double>(bodyBytes) / kMiB / bodyMedian);
    std::printf("read(2) loop (file only)     : median %.3f s, %.0f MiB/s\n", plainMedian,
                static_cast<double>(plainBytes) / kMiB / plainMedian);
    std::printf("time ratio RestIO / read(2)  : %.3f\n", bodyMedian / plainMedian);
    std::printf("peak RSS after streaming the %zu MiB body: %ld KiB\n", sizeMiB, PeakRssKiB());
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const size_t sizeMiB = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1024;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    const std::string directory = argc > 3 ? argv[3] : "/tmp";
    if (sizeMiB == 0 || rounds <= 0) {
        std::fprintf(stderr, "usage: rest_bench [size-in-MiB] [rounds] [directory]\n");
        return 2;
    }
    try {
        return Run(sizeMiB, rounds, directory);
    } catch (RestIO::RestIOException& e) {  // its message is not in the const what()
        std::fprintf(stderr, "rest_bench: %s\n", e.what());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "rest_bench: %s\n", e.what());
        return 1;
    }
}
