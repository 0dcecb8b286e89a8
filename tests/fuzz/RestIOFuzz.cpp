// A body of buffer and file parts, read in the input's chunk sizes with seeks between: the bytes
// read from any offset a seek accepted are the concatenated parts from there; a read never gives
// more than asked or writes past what it gives. No exception is allowed: the files do not change.
#include "rest/RestIO.h"
#include "rest/RestIOPartBuffer.h"
#include "rest/RestIOPartFile.h"
#include "fuzz/FuzzCheck.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

using namespace OrvaneInternal;

namespace {

struct Pool {  // files of a few sizes, written once per process
    Pool()
    {
        char dir[] = "/tmp/orv-fuzz-restio-XXXXXX";
        base = mkdtemp(dir);
        for (std::size_t size : {0, 1, 2, 3, 7, 16, 100, 9000}) {
            std::string content(size, '\0');
            for (std::size_t i = 0; i < size; ++i)
                content[i] = static_cast<char>('a' + (i * 7 + size) % 26);
            files.emplace_back(base + "/" + std::to_string(size), content);
            std::ofstream(files.back().first, std::ios::binary) << content;
        }
    }
    std::string base;
    std::vector<std::pair<std::string, std::string>> files;  // path, content
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const Pool pool;
    FuzzedDataProvider input(data, size);
    RestIO body;
    std::string whole;
    for (int parts = input.ConsumeIntegralInRange(0, 8); parts > 0; --parts) {
        if (input.ConsumeBool()) {
            const auto& file = pool.files[input.ConsumeIntegralInRange<std::size_t>(0, pool.files.size() - 1)];
            body.AddPart(std::make_shared<RestIOPartFile>(file.first));
            whole += file.second;
        } else {
            auto text = std::make_shared<std::string>(input.ConsumeRandomLengthString(24));
            body.AddPart(std::make_shared<RestIOPartBuffer>(text));
            whole += *text;
        }
    }
    FUZZ_CHECK(whole.empty() && body.m_parts.empty() ? true : body.GetSize() == whole.size(), "announced size");
    if (body.m_parts.empty())
        return 0;
    std::size_t at = 0;  // where the body stands in `whole`
    try {
        for (int step = 0; step < 64 && input.remaining_bytes() > 0; ++step) {
            if (input.ConsumeIntegralInRange(0, 3) == 0) {
                const std::size_t offset = input.ConsumeIntegralInRange<std::size_t>(0, whole.size() ? whole.size() - 1 : 0);
                if (body.Seek(offset) != 0)
                    return 0;  // refused (an empty part in the way): the body is not used further
                at = offset;
                continue;
            }
            const std::size_t want = input.ConsumeIntegralInRange<std::size_t>(1, 12000);
            std::vector<char> buffer(want + 1, '\x5A');
            const std::size_t got = body.Read(buffer.data(), want);
            FUZZ_CHECK(got <= want && got <= whole.size() - at, "read " + std::to_string(got) + " of " + std::to_string(want));
            FUZZ_CHECK(std::string(buffer.data(), got) == whole.substr(at, got), "bytes differ at " + std::to_string(at));
            FUZZ_CHECK(buffer[want] == '\x5A', "wrote past the buffer");
            FUZZ_CHECK(got > 0 || at == whole.size() || want == 0, "ended early at " + std::to_string(at));
            at += got;
        }
    } catch (RestIO::RestIOException& e) {
        FUZZ_CHECK(false, e.what());
    }
    return 0;
}
