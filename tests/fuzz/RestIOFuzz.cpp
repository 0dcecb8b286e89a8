// A body of up to eight buffer and file parts, read in the input's chunk sizes with seeks between:
// the bytes read from any offset a seek accepted are the concatenated parts from there; a read
// never gives more than asked or writes past what it gives. The files do not change, so nothing throws.
#include "fuzz/FuzzCheck.h"
#include "rest/RestIO.h"
#include "rest/RestIOPartBuffer.h"
#include "rest/RestIOPartFile.h"

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <fstream>
#include <vector>

using namespace OrvaneInternal;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string dir = [] {
        char name[] = "/tmp/orv-fuzz-restio-XXXXXX";
        return std::string(mkdtemp(name));
    }();
    static const std::vector<std::string> files = [] {  // files of a few sizes, written once: dir/0, dir/1, ...
        std::vector<std::string> contents;
        for (std::size_t size : {0, 1, 3, 16, 9000}) {
            contents.emplace_back(size, '\0');
            for (std::size_t i = 0; i < size; ++i)
                contents.back()[i] = static_cast<char>('a' + (i * 7 + size) % 26);
            std::ofstream(dir + "/" + std::to_string(contents.size() - 1), std::ios::binary) << contents.back();
        }
        return contents;
    }();
    FuzzedDataProvider input(data, size);
    RestIO body;
    std::string whole;
    for (int parts = input.ConsumeIntegralInRange(1, 8); parts > 0; --parts) {
        if (input.ConsumeBool()) {
            const std::size_t file = input.ConsumeIntegralInRange<std::size_t>(0, files.size() - 1);
            body.AddPart(std::make_shared<RestIOPartFile>(dir + "/" + std::to_string(file)));
            whole += files[file];
        } else {
            auto text = std::make_shared<std::string>(input.ConsumeRandomLengthString(24));
            body.AddPart(std::make_shared<RestIOPartBuffer>(text));
            whole += *text;
        }
    }
    FUZZ_CHECK(body.GetSize() == whole.size(), "announced size");
    try {
        for (std::size_t step = 0, at = 0; step < 64 && input.remaining_bytes() > 0; ++step) {
            if (input.ConsumeIntegralInRange(0, 3) == 0 && !whole.empty()) {
                at = input.ConsumeIntegralInRange<std::size_t>(0, whole.size() - 1);
                if (body.Seek(at) != 0)
                    return 0;  // refused (an empty part in the way): the body is not used further
                continue;
            }
            const std::size_t want = input.ConsumeIntegralInRange<std::size_t>(1, 12000);
            std::vector<char> buffer(want + 1, '\x5A');
            const std::size_t got = body.Read(buffer.data(), want);
            FUZZ_CHECK(got <= want && got <= whole.size() - at && buffer[want] == '\x5A', "read " + std::to_string(got) + " of " + std::to_string(want));
            FUZZ_CHECK(std::string(buffer.data(), got) == whole.substr(at, got), "bytes differ at " + std::to_string(at));
            FUZZ_CHECK(got > 0 || at == whole.size(), "ended early at " + std::to_string(at));
            at += got;
        }
    } catch (RestIO::RestIOException& e) {
        FUZZ_CHECK(false, e.what());
    }
    return 0;
}
