// A body of up to eight buffer and file parts, read in the input's chunk sizes with seeks between:
// the bytes read from any offset a seek accepted are the concatenated parts from there, and a read
// never gives more than asked or writes past what it gives. The files do not change: nothing throws.
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
    static char dir[] = "/tmp/orv-fuzz-restio-XXXXXX";
    static const std::vector<std::string> files = [] { // dir/0 ... dir/4, written once
        std::vector<std::string> contents{"", "a", "xyz", "0123456789abcdef", std::string(9000, 'q')};
        FUZZ_CHECK(mkdtemp(dir) != nullptr, dir);
        for (std::size_t i = 0; i < contents.size(); ++i)
            std::ofstream(dir + ("/" + std::to_string(i)), std::ios::binary) << contents[i];
        return contents;
    }();
    FuzzedDataProvider input(data, size);
    RestIO body;
    std::string whole;
    for (int parts = input.ConsumeIntegralInRange(1, 8); parts > 0; --parts) {
        const std::size_t file = input.ConsumeIntegralInRange<std::size_t>(0, files.size());
        auto text =
            std::make_shared<std::string>(file < files.size() ? files[file] : input.ConsumeRandomLengthString(24));
        whole += *text;
        body.AddPart(file < files.size() ? std::shared_ptr<RestIOPart>(
                                               std::make_shared<RestIOPartFile>(dir + ("/" + std::to_string(file))))
                                         : std::make_shared<RestIOPartBuffer>(text));
    }
    FUZZ_CHECK(body.GetSize() == whole.size(), "announced size");
    try {
        for (std::size_t step = 0, at = 0; step < 64 && input.remaining_bytes() > 0; ++step) {
            if (input.ConsumeIntegralInRange(0, 3) == 0 && !whole.empty()) {
                at = input.ConsumeIntegralInRange<std::size_t>(0, whole.size() - 1);
                if (body.Seek(at) != 0)
                    return 0; // refused (an empty part in the way): the body is not used further
                continue;
            }
            const std::size_t want = input.ConsumeIntegralInRange<std::size_t>(1, 12000);
            std::vector<char> buffer(want + 1, '\x5A');
            const std::size_t got = body.Read(buffer.data(), want);
            FUZZ_CHECK(got <= want && got <= whole.size() - at && buffer[want] == '\x5A',
                       "read " + std::to_string(got) + " of " + std::to_string(want));
            FUZZ_CHECK(std::string(buffer.data(), got) == whole.substr(at, got),
                       "bytes differ at " + std::to_string(at));
            FUZZ_CHECK(got > 0 || at == whole.size(), "ended early at " + std::to_string(at));
            at += got;
        }
    } catch (RestIO::RestIOException& e) {
        FUZZ_CHECK(false, e.what());
    }
    return 0;
}
