// SPDX-License-Identifier: Apache-2.0
#include "json_store.h"

#include <algorithm>
#include <new>

namespace VEXA {

JsonStore* JsonStore::Create(cJSON* tree, size_t expected)
{
    static_assert(sizeof(JsonStore) % alignof(JsonContext) == 0 && sizeof(Block) % alignof(JsonContext) == 0);
    void* memory = ::operator new(sizeof(JsonStore) + expected * sizeof(JsonContext), std::nothrow);
    if (memory == nullptr) {
        cJSON_Delete(tree);
        return nullptr;
    }
    auto* store = new (memory) JsonStore(tree);
    store->Use(store + 1, expected);
    return store;
}

void JsonStore::Destroy(JsonStore* store)
{
    cJSON* const tree = store->tree_;
    for (Block* block = store->blocks_; block != nullptr;) {
        Block* const next = block->next;
        ::operator delete(block);
        block = next;
    }
    ::operator delete(store);
    cJSON_Delete(tree);
}

bool JsonStore::Grow(size_t count)
{
    blockSize_ = std::max(blockSize_ * 2, count);
    void* memory = ::operator new(sizeof(Block) + blockSize_ * sizeof(JsonContext), std::nothrow);
    if (memory == nullptr) {
        return false;
    }
    blocks_ = new (memory) Block{blocks_};
    Use(blocks_ + 1, blockSize_);
    return true;
}

void JsonStore::Use(void* memory, size_t count)
{
    free_ = static_cast<JsonContext*>(memory);
    end_ = free_ + count;
}

}  // namespace VEXA
