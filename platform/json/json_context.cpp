// SPDX-License-Identifier: Apache-2.0
#include "vexa/json/json_context.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "json_store.h"
#include "json_text.h"

namespace VEXA {

// Builds the values over cJSON's tree, the children of a container next to each other. What it costs is the walk along
// cJSON's lists, which lie scattered in memory: so a list is walked once, and its values are set on the way.
// Recursion is bounded by cJSON's limit of nesting.
class JsonTreeBuilder {
public:
    // False when memory is short.
    static bool Build(const cJSON& tree, JsonStore& store, JsonContext& root)
    {
        SetValue(tree, root);
        return !root.IsContainer() || JsonTreeBuilder(store).AddChildren(root);
    }

private:
    explicit JsonTreeBuilder(JsonStore& store) : store_(store) {}

    bool AddChildren(JsonContext& container)
    {
        const cJSON* const source = container.held_.source;
        JsonContext* first = store_.Free();
        size_t count = SetValues(source, first, store_.Room());
        if (count > store_.Room()) {
            if (!store_.Grow(count)) {
                return false;
            }
            first = store_.Free();
            SetValues(source, first, count);
        }
        store_.Take(count);
        container.held_.children = first;
        container.size_ = static_cast<uint32_t>(count);
        return std::all_of(
            first, first + count, [this](JsonContext& child) { return !child.IsContainer() || AddChildren(child); });
    }

    // Sets the values of a list, as many as there is room for, and counts all of them.
    static size_t SetValues(const cJSON* item, JsonContext* values, size_t room)
    {
        size_t count = 0;
        for (; item != nullptr; item = item->next, ++count) {
            if (count < room) {
                auto* value = new (values + count) JsonContext;
                if (item->string != nullptr) {
                    value->key_ = item->string;
                    value->keySize_ = Length(item->string);
                }
                SetValue(*item, *value);
            }
        }
        return count;
    }

    static void SetValue(const cJSON& item, JsonContext& value)
    {
        switch (item.type & 0xFF) {
            case cJSON_False:
            case cJSON_True:
                value.kind_ = JsonContext::BOOLEAN;
                value.held_.boolean = (item.type & cJSON_True) != 0;
                break;
            case cJSON_Number:
                value.kind_ = JsonContext::NUMBER;
                value.held_.number = item.valuedouble;
                break;
            case cJSON_String:
                value.kind_ = JsonContext::STRING;
                value.held_.text = item.valuestring;
                value.size_ = Length(item.valuestring);
                break;
            case cJSON_Array:
            case cJSON_Object:
                value.kind_ = (item.type & cJSON_Array) != 0 ? JsonContext::ARRAY : JsonContext::OBJECT;
                value.held_.source = item.child;
                break;
            default:
                value.kind_ = JsonContext::NULL_VALUE;
        }
    }

    // No text is longer: the whole one is not.
    static uint32_t Length(const char* text) { return static_cast<uint32_t>(std::strlen(text)); }

    JsonStore& store_;
};

JsonContext::JsonContext(const std::string& text) : discarded_(true)
{
    // Replies have few values that take less text; what is missing is added as it is needed.
    constexpr size_t textOfValue = 12;
    if (text.size() > std::numeric_limits<uint32_t>::max() || HoldsNul(text)) {
        return;
    }
    // The length counts the terminating NUL, which cJSON wants to see behind the value.
    cJSON* const tree = cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, nullptr, 1);
    if (tree == nullptr) {
        return;
    }
    store_ = JsonStore::Create(tree, tree->child == nullptr ? 0 : text.size() / textOfValue);
    if (store_ == nullptr) {
        return;
    }
    discarded_ = !JsonTreeBuilder::Build(*tree, *store_, *this);
    if (discarded_) {
        kind_ = ABSENT;
    }
}

void JsonContext::Free()
{
    JsonStore::Destroy(store_);
}

const JsonContext* JsonContext::Find(std::string_view key) const
{
    if (kind_ != OBJECT) {
        return nullptr;
    }
    const JsonContext* const member =
        std::find_if(begin(), end(), [key](const JsonContext& m) { return m.Key() == key; });
    return member == end() ? nullptr : member;
}

const JsonContext& JsonContext::operator[](std::string_view key) const
{
    static const JsonContext absent;
    const JsonContext* member = Find(key);
    return member == nullptr ? absent : *member;
}

}  // namespace VEXA
