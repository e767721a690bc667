// The KPI option store against a std::map under random option calls and deletions, its limits and
// key offsets, allocation failure at every step, and release of every block on uninitialisation.
#include <map>
#include <random>
#include <tuple>

#include "module_fixture.h"

namespace {

using Key = std::tuple<uint16_t, uint32_t, uint32_t, uint16_t>;  // stored component, KPI, object, sub-object

class KpiStoreTest : public AgentTest {
protected:
    static QvAgentKpiObject StoreKey(const Key &k) {
        return QvAgentKpiObject{std::get<1>(k), std::get<2>(k), std::get<3>(k), std::get<0>(k)};
    }
    // Keys of one tree level in the order the platform's tree walks them.
    template <typename Payload>
    static std::vector<Payload *> Walk(QvAgentTree &tree) {
        std::vector<Payload *> out;
        for (auto *n = static_cast<PAL_AVL_NODE_S *>(tree.pstFirst); n != nullptr; n = PAL_AVL_Next(n)) {
            out.push_back(static_cast<Payload *>(n->pKey));
        }
        return out;
    }
    // The whole store, flattened in tree order.
    static std::vector<std::pair<Key, uint32_t>> Flatten() {
        std::vector<std::pair<Key, uint32_t>> out;
        if (g_kpiMng == nullptr) return out;
        for (auto *c : Walk<QvAgentKpiComponentNode>(*g_kpiMng)) {
            for (auto *k : Walk<QvAgentKpiNode>(c->stKpiTree)) {
                for (auto *o : Walk<QvAgentKpiObjectNode>(k->stObjectTree)) {
                    out.push_back({Key{c->usComponentId, k->uiKpiId, o->uiObjectId, o->usSubObjectId}, o->uiOnChangeLimit});
                }
            }
        }
        return out;
    }
};

TEST_F(KpiStoreTest, TreeOfTreesMatchesAMapUnderRandomCalls) {
    std::mt19937 rng(20240611);
    std::map<Key, uint32_t> model;
    auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
    // Few distinct values per level, with the extremes, so that keys meet and order by unsigned value.
    const uint16_t components[] = {0, 1, 55535, 65535};  // QV_Agent_SetKpiOption adds 10000 to each
    const uint32_t ids[] = {0, 1, 2, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    const uint16_t subs[] = {0, 1, 0x8000, 0xFFFF};
    for (int step = 0; step < 3000; ++step) {
        QvAgentKpiObject caller{ids[pick(6)], ids[pick(6)], subs[pick(4)], components[pick(4)]};
        const Key key{static_cast<uint16_t>(caller.usComponentId + QV_KPI_COMPONENT_OFFSET), caller.uiKpiId,
                      caller.uiObjectId, caller.usSubObjectId};
        const uint32_t op = pick(20);
        if (op < 16) {
            const uint32_t limit = pick(1500);
            ASSERT_EQ(QV_Agent_SetKpiOption(&caller, KPI_OPTION_ONCHANGE, 4, &limit), QV_AGENT_OK);
            model[key] = std::min(limit, KPI_ONCHANGE_MAX);
        } else if (g_kpiMng != nullptr && op == 16) {
            QV_AGENT_KpiMngComponenetNodeDelete(std::get<0>(key), g_kpiMng, module_);
            std::erase_if(model, [&](const auto &e) { return std::get<0>(e.first) == std::get<0>(key); });
        } else if (g_kpiMng != nullptr && op == 17) {
            if (auto *c = QV_AGENT_KpiMngComponenetNodeFind(std::get<0>(key), g_kpiMng)) {
                QV_AGENT_KpiMngKpiNodeDelete(std::get<1>(key), &c->stKpiTree, module_);
            }
            std::erase_if(model, [&](const auto &e) {
                return std::get<0>(e.first) == std::get<0>(key) && std::get<1>(e.first) == std::get<1>(key);
            });
        } else if (op == 18) {
            if (auto *c = QV_AGENT_KpiMngComponenetNodeFind(std::get<0>(key), g_kpiMng)) {
                if (auto *k = QV_AGENT_KpiMngKpiNodeFind(std::get<1>(key), &c->stKpiTree)) {
                    const QvAgentKpiObjectNode image{std::get<2>(key), std::get<3>(key), 0, 0, 0, 0, {}};
                    QV_AGENT_KpiMngObjectNodeDelete(&image, &k->stObjectTree, module_);
                }
            }
            model.erase(key);
        } else {
            const QvAgentKpiObject stored = StoreKey(key);
            const QvAgentKpiObjectNode *node = QV_AGENT_GetKpiMngInfoNode(&stored);
            ASSERT_EQ(node != nullptr, model.count(key) == 1) << step;
            if (node != nullptr) {
                EXPECT_EQ(node->uiOnChangeLimit, model[key]);
            }
        }
    }
    // Emptied levels may stay as empty trees: compare the objects, in order.
    const auto flat = Flatten();
    ASSERT_EQ(flat.size(), model.size());
    size_t i = 0;
    for (const auto &[key, limit] : model) {
        EXPECT_EQ(flat[i].first, key) << i;
        EXPECT_EQ(flat[i].second, limit) << i;
        ++i;
    }
    EXPECT_EQ(QV_AGENT_KpiMngMouduleUnInit(module_), QV_AGENT_OK);
    EXPECT_EQ(g_kpiMng, nullptr);
    EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_) << "uninitialisation releases every record and node";
}

TEST_F(KpiStoreTest, OptionCallsKeepStateAndMeetUpdatesUnderOneKey) {
    const QvAgentKpiObject object{65535, 9, 3, 5};
    const uint32_t limits[] = {1000, 0, 720, 721, 4};
    const uint32_t stored[] = {720, 0, 720, 720, 4};
    const QvAgentKpiObject key{65535, 9, 3, 10005};
    for (size_t i = 0; i < std::size(limits); ++i) {
        ASSERT_EQ(QV_Agent_SetKpiOption(&object, KPI_OPTION_ONCHANGE, 4, &limits[i]), QV_AGENT_OK);
        QvAgentKpiObjectNode *node = QV_AGENT_GetKpiMngInfoNode(&key);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(node->uiOnChangeLimit, stored[i]) << limits[i];
        node->bHasLast = 1;  // the filter's state survives a new limit
        node->uiSameCount = 2;
    }
    // The 16-bit KPI id of the other key record reaches the same node.
    const StlmKpiKey stlm{5, 0xFFFF, 9, 3};
    const uint32_t seven = 7;
    ASSERT_EQ(StlmSetKpiOption(&stlm, KPI_OPTION_ONCHANGE, 4, &seven), QV_AGENT_OK);
    EXPECT_EQ(QV_AGENT_GetKpiMngInfoNode(&key)->uiOnChangeLimit, 7u);
    EXPECT_EQ(QV_AGENT_GetKpiMngInfoNode(&key)->uiSameCount, 2u);
    EXPECT_EQ(Flatten().size(), 1u);
    // Sub-objects are objects of their own, ordered after the object id.
    const QvAgentKpiObject sub0{65535, 9, 0, 5};
    ASSERT_EQ(QV_Agent_SetKpiOption(&sub0, KPI_OPTION_ONCHANGE, 4, &seven), QV_AGENT_OK);
    ASSERT_EQ(Flatten().size(), 2u);
    EXPECT_EQ(std::get<3>(Flatten()[0].first), 0u);
}

TEST_F(KpiStoreTest, RefusedCallsCreateNothing) {
    const QvAgentKpiObject object{1, 2, 3, 4};
    const StlmKpiKey stlm{4, 1, 2, 3};
    const uint32_t limit = 3;
    EXPECT_EQ(QV_Agent_SetKpiOption(&object, 1, 4, &limit), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_Agent_SetKpiOption(nullptr, KPI_OPTION_ONCHANGE, 4, &limit), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_Agent_SetKpiOption(&object, KPI_OPTION_ONCHANGE, 4, nullptr), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(StlmSetKpiOption(&stlm, 3, 4, &limit), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(g_kpiMng, nullptr) << "not even the store";
    QV_Agent_SetHandle(nullptr);
    EXPECT_EQ(QV_Agent_SetKpiOption(&object, KPI_OPTION_ONCHANGE, 4, &limit), QV_AGENT_ERR_NO_MEMORY);
    QV_Agent_SetHandle(module_);
    EXPECT_EQ(g_kpiMng, nullptr);
    EXPECT_EQ(QV_AGENT_KpiUSHORTKeyCompare(nullptr, &limit), static_cast<int32_t>(QV_AGENT_ERR_PARAM));
    EXPECT_EQ(QV_AGENT_KpiObjectKeyCompare(&limit, nullptr), static_cast<int32_t>(QV_AGENT_ERR_PARAM));
}

TEST_F(KpiStoreTest, EveryFailedAllocationLeavesAUsableStore) {
    const QvAgentKpiObject object{1, 2, 3, 4};
    const QvAgentKpiObject key{1, 2, 3, 10004};
    const uint32_t limit = 3;
    const uint64_t callsBefore = QVPLAT_TestAllocCalls();
    ASSERT_EQ(QV_Agent_SetKpiOption(&object, KPI_OPTION_ONCHANGE, 4, &limit), QV_AGENT_OK);
    const uint64_t calls = QVPLAT_TestAllocCalls() - callsBefore;
    ASSERT_EQ(calls, 7u) << "the store, and a record and a node per level";
    QV_AGENT_KpiMngMouduleUnInit(module_);
    for (uint64_t nth = 1; nth <= calls; ++nth) {
        SCOPED_TRACE(nth);
        QVPLAT_TestFailAllocation(nth);
        EXPECT_EQ(QV_Agent_SetKpiOption(&object, KPI_OPTION_ONCHANGE, 4, &limit), QV_AGENT_ERR_NO_MEMORY);
        QVPLAT_TestFailAllocation(0);
        EXPECT_EQ(QV_AGENT_GetKpiMngInfoNode(&key), nullptr);
        ASSERT_EQ(QV_Agent_SetKpiOption(&object, KPI_OPTION_ONCHANGE, 4, &limit), QV_AGENT_OK) << "the levels left are used";
        EXPECT_EQ(Flatten().size(), 1u);
        QV_AGENT_KpiMngMouduleUnInit(module_);
        EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_);
    }
}

}  // namespace
