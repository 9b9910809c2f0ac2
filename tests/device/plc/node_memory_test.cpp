// The node table's own memory: blocks of every size class are distinct and
// aligned, slabs go back to the system once emptied, and a table that is
// filled and emptied again maps no more than before.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include "device/plc/node_memory.h"
#include "device/plc/plc_node.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool ON_HEAP = true; // the sanitizer's build keeps the table on the heap
#else
constexpr bool ON_HEAP = false;
#endif

} // namespace

TEST(NodeMemory, BlocksAreDistinctAlignedReusedAndGivenBack)
{
    const size_t before = node_memory_mapped();
    for (size_t size : {1u, 16u, 17u, 24u, 224u, 256u, 257u, 70000u}) {
        // More than one slab's worth of the small sizes.
        const size_t count = size <= 256 ? 65536 / size + 50 : 3;
        std::vector<unsigned char *> blocks;
        std::set<uintptr_t> seen;
        for (size_t i = 0; i < count; ++i) {
            auto *p = static_cast<unsigned char *>(node_memory_alloc(size));
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % (size % 16 == 0 ? 16 : 8), 0u) << size;
            memset(p, static_cast<int>(i), size);
            blocks.push_back(p);
            seen.insert(reinterpret_cast<uintptr_t>(p));
        }
        EXPECT_EQ(seen.size(), count) << "a block handed out twice, size " << size;
        for (size_t i = 0; i < count; ++i)
            ASSERT_EQ(blocks[i][size - 1], static_cast<unsigned char>(i)) << "overlap, size " << size;
        node_memory_free(blocks[count / 2], size);
        auto *again = static_cast<unsigned char *>(node_memory_alloc(size));
        if (!ON_HEAP) { // a freed block is the next one handed out
            EXPECT_EQ(again, blocks[count / 2]) << size;
        }
        blocks[count / 2] = again;
        for (unsigned char *p : blocks)
            node_memory_free(p, size);
    }
    node_memory_free(nullptr, 24);
    if (!ON_HEAP) { // at most one emptied slab kept per size class
        EXPECT_LE(node_memory_mapped(), before + 6 * 64 * 1024);
    }

    // A table filled and emptied maps no more than before.
    auto fill = [](uint32_t first) {
        for (uint32_t id = first; id < first + 10000; ++id)
            ASSERT_EQ(node_table_add_one(node_create("dev", 1, id, "name", "D0", 4, "", 0, 0, 0, 0,
                                                     0, 0, 0, 0, 0, "", "")),
                      0);
    };
    const size_t unfilled = node_memory_mapped();
    fill(1);
    const size_t full = node_memory_mapped();
    node_table_del_all();
    const size_t empty = node_memory_mapped();
    if (!ON_HEAP) {
        // Records, cells and index entries: about 190 bytes a node.
        EXPECT_GT(full, 10000u * sizeof(node));
        EXPECT_LT(full, 10000u * 256);
        // What stays is an emptied slab for each size class used.
        EXPECT_LT(empty - unfilled, full / 4);
    }
    // Replacing the table with other nodes, as a sync does (the new ones
    // are made while the old ones still exist), settles at the same size.
    fill(1);
    std::vector<node *> fresh;
    for (uint32_t id = 20001; id < 30001; ++id)
        fresh.push_back(node_create("dev", 1, id, "other", "D1", 4, "", 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                    "", ""));
    node_table_del_all();
    for (node *n : fresh)
        ASSERT_EQ(node_table_add_one(n), 0);
    ASSERT_NE(node_table_find(20001), nullptr);
    EXPECT_EQ(node_table_find(1), nullptr);
    EXPECT_EQ(node_table_length(), 10000u);
    if (!ON_HEAP) {
        EXPECT_LE(node_memory_mapped(), full + 3 * 64 * 1024);
    }
    node_table_del_all();
    EXPECT_EQ(get_node_table_list(), nullptr);
}

