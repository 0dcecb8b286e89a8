// Runs expat over a whole reply and checks its shape against a small table
// that each reply message supplies: which element may appear at which depth,
// and what its attributes set in the message. An element the table does not
// allow at its depth throws ServerException 403 (empty message). A reply that
// is not well-formed XML, or a parser that cannot be made, throws
// ServerException 300 with an empty message. An attribute reader may throw:
// the exception is caught inside the callback, the parser is stopped, and the
// same exception is rethrown to the caller once expat has returned (nothing
// unwinds through expat).
#pragma once

#include "server/ServerException.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace OrvaneInternal {

// One allowed element: its name at this depth (0 is the root), and what its
// attributes set; a null `read` keeps nothing. Names compare byte for byte.
template <class Message> struct XmlElement {
    int32_t depth;
    const char* name;
    void (*read)(Message& message, const char** attributes);
};

class XmlReplyParser {
  public:
    // `message.m_depth` is the depth of the element being parsed; it is 0
    // again after a well-formed reply.
    template <class Message, std::size_t N>
    static void Parse(const std::string& reply, Message& message, const XmlElement<Message> (&elements)[N])
    {
        Shape<Message> shape{message, elements, N};
        Parse(reply, &shape, &Start<Message>, &End<Message>);
    }

    // An attribute value (UTF-8) as a wide string. Replies are mostly ASCII,
    // which is widened unit by unit; only other text goes through the
    // converter, whose errors pass unchanged.
    static std::wstring Text(const char* value);

    // Calls `store(value)` for every attribute named `name`, in order, so a
    // later duplicate wins.
    template <class Store> static void ForEach(const char** attributes, const char* name, Store store)
    {
        for (int i = 0; attributes[i] != nullptr; i += 2) {
            if (std::strcmp(attributes[i], name) == 0)
                store(attributes[i + 1]);
        }
    }

  private:
    using StartHandler = void (*)(void* userData, const char* name, const char** attributes);
    using EndHandler = void (*)(void* userData, const char* name);

    template <class Message> struct Shape {
        Message& message;
        const XmlElement<Message>* elements;
        std::size_t count;
    };

    template <class Message> static void Start(void* userData, const char* name, const char** attributes)
    {
        auto& shape = *static_cast<Shape<Message>*>(userData);
        for (std::size_t i = 0; i < shape.count; ++i) {
            const XmlElement<Message>& element = shape.elements[i];
            if (element.depth == shape.message.m_depth && std::strcmp(element.name, name) == 0) {
                if (element.read)
                    element.read(shape.message, attributes);
                ++shape.message.m_depth;
                return;
            }
        }
        throw ServerException(ServerException::UnexpectedResponse);
    }

    template <class Message> static void End(void* userData, const char*)
    {
        --static_cast<Shape<Message>*>(userData)->message.m_depth;
    }

    static void Parse(const std::string& reply, void* userData, StartHandler start, EndHandler end);
};

} // namespace OrvaneInternal
