#include "server/ServerReason.h"

#include "sys/Unicode.h"

#include <expat.h>

#include <memory>
#include <string_view>

namespace OrvaneInternal {

namespace {

constexpr std::size_t kLargestDocument = 1 << 20;

struct ParserDeleter {
    void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};

// Collects the text of <summary> and <detail> inside <error>.
struct ErrorDocument {
    int errorDepth = 0;          // open <error> elements
    std::string* into = nullptr; // the element whose text is being collected
    std::string summary;
    std::string detail;
    bool found = false;

    static void Start(void* userData, const char* name, const char**)
    {
        auto* document = static_cast<ErrorDocument*>(userData);
        const std::string element(name);
        if (element == "error") {
            ++document->errorDepth;
            document->found = true;
        } else if (document->errorDepth > 0 && element == "summary") {
            document->into = &document->summary;
        } else if (document->errorDepth > 0 && element == "detail") {
            document->into = &document->detail;
        }
    }
    static void End(void* userData, const char* name)
    {
        auto* document = static_cast<ErrorDocument*>(userData);
        const std::string element(name);
        if (element == "error")
            --document->errorDepth;
        else if (element == "summary" || element == "detail")
            document->into = nullptr;
    }
    static void Text(void* userData, const char* text, int length)
    {
        auto* document = static_cast<ErrorDocument*>(userData);
        if (document->into != nullptr && document->into->size() < 4 * kServerReasonLimit)
            document->into->append(text, static_cast<std::size_t>(length));
    }
};

// UTF-8 to wide, at most `limit` characters; ill-formed bytes become U+FFFD,
// so any reply gives some text. No character takes more than four bytes, so
// the bytes beyond 4 * limit are never needed.
std::wstring Widen(const std::string& text, std::size_t limit)
{
    std::wstring out = Unicode::ToWideCharLossy(std::string_view(text).substr(0, 4 * limit));
    if (out.size() > limit)
        out.resize(limit);
    return out;
}

} // namespace

std::wstring ServerReason(const std::string& body)
{
    std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate(nullptr));
    ErrorDocument document;
    // An error document is small; a huge reply is only quoted.
    if (parser && body.size() <= kLargestDocument) {
        XML_SetUserData(parser.get(), &document);
        XML_SetElementHandler(parser.get(), &ErrorDocument::Start, &ErrorDocument::End);
        XML_SetCharacterDataHandler(parser.get(), &ErrorDocument::Text);
        const bool parsed =
            XML_Parse(parser.get(), body.data(), static_cast<int>(body.size()), XML_TRUE) == XML_STATUS_OK;
        if (parsed && document.found) {
            std::string text = document.summary;
            if (!document.summary.empty() && !document.detail.empty())
                text += ": ";
            return Widen(text + document.detail, kServerReasonLimit);
        }
    }
    return Widen(body, kServerReasonLimit);
}

} // namespace OrvaneInternal
