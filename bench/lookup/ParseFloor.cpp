// The parser's share of the project lookup: the same project pages parsed as
// the library must parse them (a fresh expat parser per page, element
// handlers registered, the whole page in one final XML_Parse call), with
// handlers that do nothing and no HTTP at all. Whatever the library spends
// per page beyond the plain GET and this, it spends in its own code.
//
// Usage: lookup_parse_floor --pages-dir DIR --pages N [--rounds R]
// reads DIR/1.xml ... DIR/N.xml. Prints parse_cpu_s_i per round (all pages).
#include "bench/common/BenchSupport.h"

#include <expat.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace OrvaneBench;

namespace {

int elements = 0;

void OnStart(void*, const XML_Char*, const XML_Char**) { ++elements; }
void OnEnd(void*, const XML_Char*) {}

void ParsePage(const std::string& page)
{
    XML_Parser parser = XML_ParserCreate(nullptr);
    if (parser == nullptr)
        Fail("XML_ParserCreate failed");
    XML_SetUserData(parser, nullptr);
    XML_SetElementHandler(parser, &OnStart, &OnEnd);
    if (XML_Parse(parser, page.data(), static_cast<int>(page.size()), 1) != XML_STATUS_OK)
        Fail("a page is not well-formed XML");
    XML_ParserFree(parser);
}

}  // namespace

int main(int argc, char** argv)
{
    std::string directory;
    int pages = 0;
    int rounds = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--pages-dir") == 0)
            directory = argv[i + 1];
        else if (std::strcmp(argv[i], "--pages") == 0)
            pages = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--rounds") == 0)
            rounds = std::atoi(argv[i + 1]);
        else
            Fail(std::string("unknown option ") + argv[i]);
    }
    if (directory.empty() || pages < 1 || pages > 100000 || rounds < 1 || rounds > 1000)
        Fail("usage: lookup_parse_floor --pages-dir DIR --pages 1..100000 [--rounds 1..1000]");

    std::vector<std::string> texts;
    long bytes = 0;
    for (int page = 1; page <= pages; ++page) {
        std::ifstream in(directory + "/" + std::to_string(page) + ".xml", std::ios::binary);
        if (!in)
            Fail("cannot read page " + std::to_string(page));
        std::ostringstream text;
        text << in.rdbuf();
        texts.push_back(text.str());
        bytes += static_cast<long>(texts.back().size());
    }
    for (int round = 0; round < rounds; ++round) {
        const double cpu = ThreadCpuSeconds();
        for (const std::string& text : texts)
            ParsePage(text);
        Report(("parse_cpu_s_" + std::to_string(round)).c_str(), ThreadCpuSeconds() - cpu);
    }
    Report("page_bytes", bytes / pages);
    Report("elements", static_cast<long>(elements));
    return 0;
}
