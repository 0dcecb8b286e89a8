// RestIO over random part layouts against a reference model of its rules.
// The input is a program: add a buffer part (fresh text, or sharing an earlier
// part's string), add a file part (over a pooled file, empty ones included, or
// over a file written for this input), grow a shared string, make a file
// longer or shorter on disk after its parts measured it, read N bytes, seek to
// an offset. After every step the returned value, the bytes, any exception,
// the current part and the total size must agree with the model, which follows
// the written rules literally, oddities included: an empty part in front of a
// seek target fails the seek, an offset at or past the end rewinds, a file part
// yields exactly the size it measured and reports done only once a read asks
// for more than is left, and a file that has shrunk below that size fails.
#include "rest/RestIO.h"
#include "rest/RestIOPartBuffer.h"
#include "rest/RestIOPartFile.h"

#include "fuzz/FuzzSupport.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/common_interface_defs.h>

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace OrvaneFuzz;
using OrvaneInternal::RestIO;
using OrvaneInternal::RestIOPartBuffer;
using OrvaneInternal::RestIOPartFile;

namespace {

constexpr size_t kAllOnes = std::numeric_limits<size_t>::max();
constexpr size_t kMaxParts = 8;
constexpr size_t kMaxSteps = 48;
constexpr size_t kMaxOwnFiles = 3;

// Sizes of the pooled files: empty, tiny, and one larger than the file
// stream's own buffer, so that big reads go straight to the caller's buffer.
const size_t kFileSizes[] = {0, 1, 2, 3, 7, 16, 100, 9000};

// A file on disk and what it holds now.
struct DiskFile {
    std::string path;
    std::string content;
};

std::string g_directory;
std::vector<DiskFile> g_pool;  // written once, never changed
// ORV_FUZZ_TRACE=1 prints every step, to read what a crashing input does.
bool g_trace = false;

void Trace(const std::string& line)
{
    if (g_trace)
        std::fprintf(stderr, "%s\n", line.c_str());
}

void Write(const DiskFile& file)
{
    std::ofstream out(file.path, std::ios::binary | std::ios::trunc);
    out.write(file.content.data(), static_cast<std::streamsize>(file.content.size()));
    out.close();
    FUZZ_CHECK(!out.fail(), "writing " + file.path);
}

void RemovePool()
{
    for (const DiskFile& file : g_pool)
        ::unlink(file.path.c_str());
    for (size_t k = 0; k < kMaxOwnFiles; ++k)
        ::unlink((g_directory + "/own" + std::to_string(k)).c_str());
    if (!g_directory.empty())
        ::rmdir(g_directory.c_str());
}

void MakePool()
{
    // Files are written for most inputs: memory-backed /dev/shm makes that
    // several times faster than a disk, unless TMPDIR says otherwise.
    const char* tmpdir = std::getenv("TMPDIR");
    for (const char* base : {tmpdir, "/dev/shm", "/tmp"}) {
        if (base == nullptr || *base == '\0')
            continue;
        std::string pattern = std::string(base) + "/orv-restio-fuzz-XXXXXX";
        if (::mkdtemp(pattern.data()) != nullptr) {
            g_directory = pattern;
            break;
        }
    }
    FUZZ_CHECK(!g_directory.empty(), "no directory for the part files");
    // Removed however the run ends: normally, on a failed check, or on a
    // sanitizer's report.
    std::atexit(&RemovePool);
    g_beforeAbort = &RemovePool;
    __sanitizer_set_death_callback(&RemovePool);
    for (size_t f = 0; f < sizeof kFileSizes / sizeof kFileSizes[0]; ++f) {
        DiskFile file{g_directory + "/part" + std::to_string(f), std::string(kFileSizes[f], '\0')};
        for (size_t i = 0; i < file.content.size(); ++i)
            file.content[i] = static_cast<char>(f * 37 + i * 13 + 1);
        Write(file);
        g_pool.push_back(std::move(file));
    }
}

// --- the model ---

struct ModelPart {
    bool file;
    std::shared_ptr<std::string> data;  // buffer parts: the shared string, read live
    const DiskFile* disk = nullptr;     // file parts: the file as it is now
    size_t size;                        // measured when the part was made
    size_t position = 0;
    bool done = false;
    // File parts: the stream has failed (a short read, or a refused seek) and
    // reads nothing until the next seek clears it.
    bool failed = false;
    // File parts: the stream may hold bytes read ahead, so a change on disk
    // would not be seen the way the model sees it. A seek empties it.
    bool readAhead = false;

    // Returns the count; sets `threw` instead when the part would throw.
    size_t Read(char* buffer, size_t wanted, bool& threw)
    {
        if (!file) {
            const size_t n = std::min(wanted, size - position);
            std::memcpy(buffer, data->data() + position, n);
            position += n;
            return n;
        }
        const size_t left = size - std::min(position, size);
        const size_t want = std::min(wanted, left);
        if (want != 0) {
            readAhead = true;
            const size_t onDisk = position < disk->content.size() ? disk->content.size() - position : 0;
            const size_t n = failed ? 0 : std::min(want, onDisk);
            if (n != 0)
                std::memcpy(buffer, disk->content.data() + position, n);
            position += n;
            if (n < want) {
                failed = true;
                threw = true;
                return 0;
            }
        }
        if (wanted > left)
            done = true;
        return want;
    }

    bool Seek(size_t target)
    {
        if (!file) {
            if (target >= size)
                return false;
            position = target;
            return true;
        }
        done = false;
        readAhead = false;
        position = target;
        // The stream takes signed offsets; larger ones turn negative and are refused.
        failed = target > static_cast<size_t>(std::numeric_limits<std::streamoff>::max());
        return !failed;
    }

    bool Done() const { return file ? done : position == size; }
};

struct Model {
    std::vector<ModelPart> parts;
    int32_t current = -1;

    // Returns the count; sets `threw` when the body would throw, leaving the
    // state as it is at that moment.
    size_t Read(char* buffer, size_t size, bool& threw)
    {
        if (current == -1)
            return kAllOnes;
        const size_t count = parts.size();
        size_t total = 0;
        if (static_cast<size_t>(current) != count && size != 0) {
            for (size_t guard = 0;; ++guard) {
                FUZZ_CHECK(guard < 1000000, "model read does not end");
                ModelPart& part = parts[static_cast<size_t>(current)];
                const size_t k = part.Read(buffer, size, threw);
                if (threw)
                    return 0;
                total += k;
                buffer += k;
                size -= k;
                if (part.Done()) {
                    ++current;
                    if (size == 0 || static_cast<size_t>(current) == count)
                        break;
                } else if (size == 0) {
                    break;
                }
            }
        }
        if (static_cast<size_t>(current) >= count)
            current = static_cast<int32_t>(count) - 1;
        return total;
    }

    bool RewindThroughCurrent(size_t first)
    {
        for (size_t i = first; static_cast<int64_t>(i) <= current; ++i) {
            if (!parts[i].Seek(0))
                return false;
        }
        return true;
    }

    int Seek(size_t offset)
    {
        const size_t count = parts.size();
        if (count != 0 && offset != kAllOnes) {
            size_t remaining = offset;
            for (size_t i = 0; i < count; ++i) {
                const size_t s = parts[i].size;
                if (s > remaining) {
                    if (!parts[i].Seek(remaining) || !RewindThroughCurrent(i + 1))
                        return 1;
                    current = static_cast<int32_t>(i);
                    return 0;
                }
                remaining -= s;
                if (!parts[i].Seek(s - 1))
                    return 1;
            }
        }
        if (!RewindThroughCurrent(1))
            return 1;
        current = 0;
        return 0;
    }

    void AddPart(ModelPart part)
    {
        parts.push_back(std::move(part));
        if (current == -1)
            current = 0;
    }

    size_t Size() const
    {
        size_t total = 0;
        for (const ModelPart& part : parts)
            total += part.size;
        return total;
    }
};

// Offsets worth trying: small ones, part boundaries and their neighbours, the
// end of the body and the all-ones value.
size_t PickOffset(FuzzedDataProvider& input, const Model& model)
{
    const size_t total = model.Size();
    switch (input.ConsumeIntegralInRange<int>(0, 5)) {
    case 0:
        return 0;
    case 1:
        return input.ConsumeIntegralInRange<size_t>(0, total + 2);
    case 2: {
        size_t boundary = 0;
        const size_t upTo = input.ConsumeIntegralInRange<size_t>(0, model.parts.size());
        for (size_t i = 0; i < upTo; ++i)
            boundary += model.parts[i].size;
        const int delta = input.ConsumeIntegralInRange<int>(-1, 1);
        return boundary + static_cast<size_t>(static_cast<ptrdiff_t>(delta));  // -1 from 0 gives all ones
    }
    case 3:
        return total;
    case 4:
        return kAllOnes - input.ConsumeIntegralInRange<size_t>(0, 1);
    default:
        return input.ConsumeIntegral<size_t>();
    }
}

// Files written for one input, removed when it ends; parts over them may
// still be open, which the system allows.
struct OwnFiles {
    std::vector<std::unique_ptr<DiskFile>> files;
    ~OwnFiles()
    {
        for (const auto& file : files)
            ::unlink(file->path.c_str());
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    MakePool();
    g_trace = std::getenv("ORV_FUZZ_TRACE") != nullptr;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    OwnFiles own;
    RestIO body;
    Model model;
    std::vector<std::shared_ptr<std::string>> strings;  // every buffer part's string, for sharing and growing

    auto addFile = [&](const DiskFile& file, const std::string& where) {
        body.AddPart(std::make_shared<RestIOPartFile>(file.path));
        model.AddPart(ModelPart{true, nullptr, &file, file.content.size()});
        Trace(where + ": file of " + std::to_string(file.content.size()) + " bytes");
    };

    for (size_t step = 0; step < kMaxSteps && input.remaining_bytes() > 0; ++step) {
        const std::string where = "step " + std::to_string(step);
        switch (input.ConsumeIntegralInRange<int>(0, 9)) {
        case 0: {  // a buffer part over a fresh string
            if (model.parts.size() == kMaxParts)
                break;
            auto text = std::make_shared<std::string>(input.ConsumeRandomLengthString(24));
            strings.push_back(text);
            body.AddPart(std::make_shared<RestIOPartBuffer>(text));
            model.AddPart(ModelPart{false, text, nullptr, text->size()});
            Trace(where + ": buffer \"" + *text + "\"");
            break;
        }
        case 1: {  // a buffer part sharing an earlier part's string
            if (model.parts.size() == kMaxParts || strings.empty())
                break;
            auto text = strings[input.ConsumeIntegralInRange<size_t>(0, strings.size() - 1)];
            body.AddPart(std::make_shared<RestIOPartBuffer>(text));
            model.AddPart(ModelPart{false, text, nullptr, text->size()});
            Trace(where + ": shared buffer \"" + *text + "\"");
            break;
        }
        case 2: {  // a part over a pooled file
            if (model.parts.size() == kMaxParts)
                break;
            addFile(g_pool[input.ConsumeIntegralInRange<size_t>(0, g_pool.size() - 1)], where);
            break;
        }
        case 3: {  // a shared string grows; parts made before keep their size
            if (strings.empty())
                break;
            auto& text = *strings[input.ConsumeIntegralInRange<size_t>(0, strings.size() - 1)];
            text += input.ConsumeRandomLengthString(16);
            Trace(where + ": string grown to \"" + text + "\"");
            break;
        }
        case 4:
        case 5: {
            const size_t wanted = input.ConsumeBool() ? input.ConsumeIntegralInRange<size_t>(0, 40)
                                                      : input.ConsumeIntegralInRange<size_t>(0, 12000);
            // Exactly `wanted` bytes, so that a read past them is caught; the
            // model's copy starts out equal and must end equal.
            std::vector<char> got(wanted, '\x5A');
            std::vector<char> expected(wanted, '\x5A');
            bool expectThrow = false;
            const size_t expectedCount = model.Read(expected.data(), wanted, expectThrow);
            Trace(where + ": read " + std::to_string(wanted) + " -> " +
                  (expectThrow ? std::string("throws") : std::to_string(expectedCount)));
            bool threw = false;
            size_t count = 0;
            try {
                count = body.Read(got.data(), wanted);
            } catch (RestIO::RestIOException& e) {
                threw = true;
                const std::string message = e.what();
                FUZZ_CHECK(message.rfind("Failed to read from file: " + g_directory + "/", 0) == 0,
                           where + ": read threw \"" + message + "\"");
            }
            FUZZ_CHECK(threw == expectThrow, where + ": read of " + std::to_string(wanted) +
                                                 (threw ? " threw" : " did not throw"));
            if (!threw) {
                FUZZ_CHECK(count == expectedCount, where + ": read of " + std::to_string(wanted) + " returned " +
                                                       std::to_string(count) + ", expected " +
                                                       std::to_string(expectedCount));
                FUZZ_CHECK(got == expected, where + ": read bytes differ");
            }
            break;
        }
        case 6: {
            const size_t offset = PickOffset(input, model);
            const int expected = model.Seek(offset);
            Trace(where + ": seek " + std::to_string(offset) + " -> " + std::to_string(expected));
            const int result = body.Seek(offset);
            FUZZ_CHECK(result == expected, where + ": seek to " + std::to_string(offset) + " returned " +
                                               std::to_string(result) + ", expected " + std::to_string(expected));
            break;
        }
        case 7: {  // a part over a file written for this input
            if (model.parts.size() == kMaxParts || own.files.size() == kMaxOwnFiles)
                break;
            const std::string path = g_directory + "/own" + std::to_string(own.files.size());
            own.files.push_back(std::make_unique<DiskFile>(DiskFile{path, input.ConsumeRandomLengthString(24)}));
            Write(*own.files.back());
            addFile(*own.files.back(), where);
            break;
        }
        case 8: {  // another part over one of them, measuring it as it is now
            if (model.parts.size() == kMaxParts || own.files.empty())
                break;
            addFile(*own.files[input.ConsumeIntegralInRange<size_t>(0, own.files.size() - 1)], where);
            break;
        }
        default: {  // one of them grows or shrinks on disk
            if (own.files.empty())
                break;
            DiskFile& file = *own.files[input.ConsumeIntegralInRange<size_t>(0, own.files.size() - 1)];
            // Only while no part over it holds bytes read ahead from the old content.
            const bool quiet = std::none_of(model.parts.begin(), model.parts.end(), [&](const ModelPart& part) {
                return part.disk == &file && part.readAhead;
            });
            if (!quiet)
                break;
            if (input.ConsumeBool())
                file.content += input.ConsumeRandomLengthString(16);
            else
                file.content.resize(input.ConsumeIntegralInRange<size_t>(0, file.content.size()));
            Write(file);
            Trace(where + ": file now " + std::to_string(file.content.size()) + " bytes");
            break;
        }
        }
        FUZZ_CHECK(body.m_current == model.current, where + ": current part " + std::to_string(body.m_current) +
                                                        ", expected " + std::to_string(model.current));
        FUZZ_CHECK(body.GetSize() == model.Size(), where + ": size");
        FUZZ_CHECK(body.m_parts.size() == model.parts.size(), where + ": part count");
    }
    return 0;
}
