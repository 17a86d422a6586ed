// SPDX-License-Identifier: Apache-2.0
// A JSON text as an immutable tree of values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "vexa/base/export.h"

struct cJSON;

namespace VEXA {

class JsonContext;
class JsonStore;

// A container's children, in document order; they belong to the root of the tree.
struct JsonChildren {
    const JsonContext* first = nullptr;
    size_t count = 0;
};
struct JsonArray : JsonChildren {};
struct JsonObject : JsonChildren {};

// The content of a value. An empty optional has none, as with null and an absent value. Every number is a double; the
// integer alternatives are not used.
using JsonValue = std::variant<std::optional<bool>, std::optional<int32_t>, std::optional<uint32_t>,
    std::optional<uint64_t>, std::optional<int64_t>, std::optional<double>, std::optional<std::string_view>,
    std::optional<JsonArray>, std::optional<JsonObject>>;

// One value of the tree. The root, built from a text, owns everything: the values below it, and the keys and strings
// they show, live as long as it does. Any number of threads may read one tree.
class VEXA_EXPORT JsonContext {
public:
    enum Kind : uint8_t {
        OBJECT = 0,
        NUMBER = 1,
        STRING = 2,
        ARRAY = 3,
        BOOLEAN = 4,
        NULL_VALUE = 5,
        ABSENT = 6,
    };

    // An absent value.
    JsonContext() {}
    // Parses the whole of `text`, white space around the value allowed. A text that is not JSON, has something behind
    // the value, nests deeper than 1,000, does not fit in memory, or holds a NUL or an escape for one, is discarded:
    // the value is then absent.
    explicit JsonContext(const std::string& text);
    ~JsonContext()
    {
        if (store_ != nullptr) {
            Free();
        }
    }
    JsonContext(const JsonContext&) = delete;
    JsonContext& operator=(const JsonContext&) = delete;

    bool IsDiscarded() const { return discarded_; }
    // True when this is an object with a member `key`, compared letter by letter.
    bool IsContains(std::string_view key) const { return Find(key) != nullptr; }
    // The member, the first of several alike; an absent value when there is none.
    const JsonContext& operator[](std::string_view key) const;
    // A Kind.
    uint32_t Type() const { return kind_; }
    // Returns the content.
    JsonValue Value() const;
    // This value's key in its object, else "".
    std::string_view Key() const { return {key_, keySize_}; }

    // The elements of an array, the members of an object, nothing otherwise.
    const JsonContext* begin() const { return IsContainer() ? held_.children : nullptr; }
    const JsonContext* end() const { return begin() + size(); }
    size_t size() const { return IsContainer() ? size_ : 0; }

private:
    friend class JsonTreeBuilder;

    // Kept apart from its kind, which makes a value half as large as the variant alone would: the memory that a tree
    // takes is most of what it costs.
    union Held {
        double number = 0;
        bool boolean;
        const char* text;
        const JsonContext* children;
        const cJSON* source;  // of a container that is being built
    };

    bool IsContainer() const { return kind_ == OBJECT || kind_ == ARRAY; }
    const JsonContext* Find(std::string_view key) const;
    void Free();

    Held held_;
    const char* key_ = "";
    JsonStore* store_ = nullptr;  // of the root only
    uint32_t size_ = 0;           // of a text or a container
    uint32_t keySize_ = 0;
    Kind kind_ = ABSENT;
    bool discarded_ = false;
};

inline JsonValue JsonContext::Value() const
{
    switch (kind_) {
        case OBJECT:
            return std::optional(JsonObject{{held_.children, size_}});
        case NUMBER:
            return std::optional(held_.number);
        case STRING:
            return std::optional(std::string_view(held_.text, size_));
        case ARRAY:
            return std::optional(JsonArray{{held_.children, size_}});
        case BOOLEAN:
            return std::optional(held_.boolean);
        default:
            return {};
    }
}

}  // namespace VEXA
