// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cjson/cJSON.h>

#include <cstddef>

#include "vexa/json/json_context.h"

namespace VEXA {

// Owns, for the root of a tree, cJSON's tree and the memory of all values below the root. The store and its first
// block are one allocation, so that a small text costs one.
class JsonStore {
public:
    // Takes over `tree`; `expected` values are made room for at once. Null, with `tree` deleted, when memory is short.
    static JsonStore* Create(cJSON* tree, size_t expected);
    // Frees everything at once: values need no destructor.
    static void Destroy(JsonStore* store);

    // Where the next values go, next to each other, and how many there is room for.
    JsonContext* Free() const { return free_; }
    size_t Room() const { return static_cast<size_t>(end_ - free_); }
    // Makes room for at least `count`, elsewhere. False when memory is short.
    bool Grow(size_t count);
    void Take(size_t count) { free_ += count; }

private:
    struct Block {
        Block* next;
    };

    explicit JsonStore(cJSON* tree) : tree_(tree) {}
    void Use(void* memory, size_t count);

    cJSON* const tree_;
    Block* blocks_ = nullptr;
    size_t blockSize_ = 256;
    JsonContext* free_ = nullptr;
    JsonContext* end_ = nullptr;
};

}  // namespace VEXA
