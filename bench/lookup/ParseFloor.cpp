// The parser's share of the project lookup: the same project pages parsed as the library must parse them (a fresh
// expat parser per page, element handlers registered, the whole page in one final XML_Parse call), with handlers
// that do nothing and no HTTP at all. Whatever the library spends per page beyond the plain GET and this, it spends
// in its own code.
//
// Usage: lookup_parse_floor PAGES-DIR PAGES [ROUNDS]   reads PAGES-DIR/1.xml ... PAGES-DIR/PAGES.xml;
// prints parse_cpu_s_i per round (all pages) and page_bytes.
#include "bench/common/BenchSupport.h"

#include <expat.h>

#include <fstream>
#include <sstream>
#include <vector>

using namespace OrvaneBench;

int main(int argc, char** argv)
{
    if (argc < 3)
        Fail("usage: lookup_parse_floor PAGES-DIR PAGES [ROUNDS]");
    const int pages = Number(argc, argv, 2, 0, 1, 100000);
    const int rounds = Number(argc, argv, 3, 1, 1, 1000);
    std::vector<std::string> texts;
    long bytes = 0;
    for (int page = 1; page <= pages; ++page) {
        std::ifstream in(std::string(argv[1]) + "/" + std::to_string(page) + ".xml", std::ios::binary);
        std::ostringstream text;
        if (!(text << in.rdbuf()))
            Fail("cannot read page " + std::to_string(page));
        texts.push_back(text.str());
        bytes += static_cast<long>(texts.back().size());
    }
    for (int round = 0; round < rounds; ++round) {
        const double cpu = Seconds(CLOCK_THREAD_CPUTIME_ID);
        for (const std::string& text : texts) {
            XML_Parser parser = XML_ParserCreate(nullptr);
            if (parser == nullptr)
                Fail("XML_ParserCreate failed");
            XML_SetUserData(parser, nullptr);
            XML_SetElementHandler(
                parser, [](void*, const XML_Char*, const XML_Char**) {}, [](void*, const XML_Char*) {});
            if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) != XML_STATUS_OK)
                Fail("a page is not well-formed XML");
            XML_ParserFree(parser);
        }
        Report("parse_cpu_s_" + std::to_string(round), Seconds(CLOCK_THREAD_CPUTIME_ID) - cpu);
    }
    Report("page_bytes", bytes / pages);
    return 0;
}
