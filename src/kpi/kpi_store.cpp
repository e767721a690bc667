// The KPI option store: a tree of components, each holding a tree of KPIs, each holding a tree of
// objects (object and sub-object together), all on the platform's AVL trees. An object record keeps
// the on-change state of one KPI instance. Every payload record has a node of its own; both are blocks
// of the agent's allocator and are released together.
#include <algorithm>
#include <cstring>

#include "core/mutex_guard.h"
#include "kpi/kpi_internal.h"
#include "qvagent/qv_agent_kpi.h"
#include "qvagent/qv_agent_memory.h"
#include "qvplatform/pal.h"

QvAgentTree *g_kpiMng = nullptr;

namespace {

// The agent's tree records are the platform's, laid out alike.
static_assert(sizeof(QvAgentTree) == sizeof(PAL_AVL_TREE_S));
static_assert(offsetof(QvAgentTree, pstFirst) == offsetof(PAL_AVL_TREE_S, pstFirst));
// Every payload begins with its key, where the compare functions read it.
static_assert(offsetof(QvAgentKpiComponentNode, usComponentId) == 0);
static_assert(offsetof(QvAgentKpiNode, uiKpiId) == 0);
static_assert(offsetof(QvAgentKpiObjectNode, usSubObjectId) == sizeof(uint32_t));

PAL_AVL_TREE_S *Pal(QvAgentTree *tree) { return reinterpret_cast<PAL_AVL_TREE_S *>(tree); }

void InitTree(QvAgentTree &tree, QvAgentTreeCompareFn compare) {
    std::memset(&tree, 0, sizeof tree);
    tree.pfnCompare = compare;
}

// Releases whatever a payload holds besides itself (its own tree); null for object records.
using DrainInner = void (*)(void *payload, QvAgentModule *module);

// Inserts a copy of the filled payload record (size bytes) with a node of its own, unless a record with
// an equal key is there. The record in the tree, or null without memory.
void *AddPayload(const void *filled, uint32_t size, QvAgentTree *tree, QvAgentModule *module) {
    void *payload = QV_AGENT_Malloc(size, module);
    if (payload == nullptr) return nullptr;
    std::memcpy(payload, filled, size);
    auto *node = static_cast<PAL_AVL_NODE_S *>(QV_AGENT_Malloc(sizeof(PAL_AVL_NODE_S), module));
    if (node == nullptr) {
        QV_AGENT_Free(payload, module);
        return nullptr;
    }
    std::memset(node, 0, sizeof *node);
    node->iHeight = -1;
    node->pSelf = node;
    node->pKey = payload;
    PAL_AVL_NODE_S *present = PAL_AVL_Insert_Or_Find(Pal(tree), node);
    if (present == nullptr) return payload;
    QV_AGENT_Free(payload, module);
    QV_AGENT_Free(node, module);
    return present->pKey;
}

void *FindPayload(const void *key, QvAgentTree *tree) {
    if (tree == nullptr) return nullptr;
    PAL_AVL_NODE_S *node = PAL_AVL_Find(Pal(tree), key);
    return node == nullptr ? nullptr : node->pKey;
}

void RemoveNode(QvAgentTree *tree, PAL_AVL_NODE_S *node, DrainInner inner, QvAgentModule *module) {
    PAL_AVL_Delete(Pal(tree), node);
    void *payload = node->pKey;
    if (inner != nullptr) inner(payload, module);
    QV_AGENT_Free(payload, module);
    QV_AGENT_Free(node, module);
}

// Empties a tree: its smallest node, reached through its self pointer, until none is left.
void DrainTree(QvAgentTree *tree, DrainInner inner, QvAgentModule *module) {
    while (tree->pstFirst != nullptr) {
        auto *node = static_cast<PAL_AVL_NODE_S *>(static_cast<PAL_AVL_NODE_S *>(tree->pstFirst)->pSelf);
        RemoveNode(tree, node, inner, module);
    }
}

uint32_t DeleteByKey(const void *key, QvAgentTree *tree, DrainInner inner, QvAgentModule *module) {
    if (key == nullptr || tree == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    PAL_AVL_NODE_S *node = PAL_AVL_Find(Pal(tree), key);
    if (node != nullptr) RemoveNode(tree, node, inner, module);
    return QV_AGENT_OK;
}

void DrainKpi(void *payload, QvAgentModule *module) {
    QV_AGENT_KpiMngKpiNodeDestory(static_cast<QvAgentKpiNode *>(payload), module);
}

void DrainComponent(void *payload, QvAgentModule *module) {
    QV_AGENT_KpiMngComponentNodeDestory(static_cast<QvAgentKpiComponentNode *>(payload), module);
}

template <typename T>
int32_t CompareUnsigned(T a, T b) {
    if (a < b) return -1;
    return a > b ? 1 : 0;
}

template <typename T>
T Load(const void *at) {
    T v;
    std::memcpy(&v, at, sizeof v);
    return v;
}

// The 32-byte image of an object record: the key, every state field 0.
QvAgentKpiObjectNode ObjectImage(uint32_t objectId, uint16_t subObjectId) {
    QvAgentKpiObjectNode image;
    std::memset(&image, 0, sizeof image);
    image.uiObjectId = objectId;
    image.usSubObjectId = subObjectId;
    return image;
}

// The object record of key, created with the levels above it as far as they are missing; null without
// memory (levels already added stay).
QvAgentKpiObjectNode *FindOrAddObject(const QvAgentKpiObject &key, QvAgentModule *module) {
    QvAgentKpiComponentNode *component = QV_AGENT_KpiMngComponenetNodeFind(key.usComponentId, g_kpiMng);
    if (component == nullptr) component = QV_AGENT_KpiMngComponenetNodeAdd(key.usComponentId, g_kpiMng, module);
    if (component == nullptr) return nullptr;
    QvAgentKpiNode *kpi = QV_AGENT_KpiMngKpiNodeFind(key.uiKpiId, &component->stKpiTree);
    if (kpi == nullptr) kpi = QV_AGENT_KpiMngKpiNodeAdd(key.uiKpiId, &component->stKpiTree, module);
    if (kpi == nullptr) return nullptr;
    const QvAgentKpiObjectNode image = ObjectImage(key.uiObjectId, key.usSubObjectId);
    QvAgentKpiObjectNode *object = QV_AGENT_KpiMngObjectNodeFind(&image, &kpi->stObjectTree);
    if (object == nullptr) object = QV_AGENT_KpiMngObjectNodeAdd(&image, &kpi->stObjectTree, module);
    return object;
}

uint32_t SetOnChange(const QvAgentKpiObject *key, uint32_t limit) {
    if (key == nullptr) return QV_AGENT_ERR_PARAM;
    QvAgentModule *module = QV_Agent_GetHandle();
    if (module == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    qv::MutexGuard guard(module->stKpiMutex);
    if (g_kpiMng == nullptr && QV_AGENT_KpiMngMouduleInit(module) != QV_AGENT_OK) return QV_AGENT_ERR_NO_MEMORY;
    QvAgentKpiObjectNode *object = FindOrAddObject(*key, module);
    if (object == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    object->uiOnChangeLimit = std::min(limit, KPI_ONCHANGE_MAX);  // the filter's state is kept
    return QV_AGENT_OK;
}

}  // namespace

int32_t QV_AGENT_KpiUSHORTKeyCompare(const void *key1, const void *key2) {
    if (key1 == nullptr || key2 == nullptr) return static_cast<int32_t>(QV_AGENT_ERR_PARAM);
    return CompareUnsigned(Load<uint16_t>(key1), Load<uint16_t>(key2));
}

int32_t QV_AGENT_KpiUINT32KeyCompare(const void *key1, const void *key2) {
    if (key1 == nullptr || key2 == nullptr) return static_cast<int32_t>(QV_AGENT_ERR_PARAM);
    return CompareUnsigned(Load<uint32_t>(key1), Load<uint32_t>(key2));
}

int32_t QV_AGENT_KpiObjectKeyCompare(const void *key1, const void *key2) {
    if (key1 == nullptr || key2 == nullptr) return static_cast<int32_t>(QV_AGENT_ERR_PARAM);
    const int32_t byObject = CompareUnsigned(Load<uint32_t>(key1), Load<uint32_t>(key2));
    if (byObject != 0) return byObject;
    constexpr size_t kSubOff = offsetof(QvAgentKpiObjectNode, usSubObjectId);
    return CompareUnsigned(Load<uint16_t>(static_cast<const uint8_t *>(key1) + kSubOff),
                           Load<uint16_t>(static_cast<const uint8_t *>(key2) + kSubOff));
}

uint32_t QV_AGENT_KpiMngMouduleInit(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    if (g_kpiMng != nullptr) return QV_AGENT_OK;
    auto *tree = static_cast<QvAgentTree *>(QV_AGENT_Malloc(sizeof(QvAgentTree), module));
    if (tree == nullptr) return QV_AGENT_KPI_STORE_NO_MEMORY;
    InitTree(*tree, QV_AGENT_KpiUSHORTKeyCompare);
    g_kpiMng = tree;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_KpiMngMouduleUnInit(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    if (g_kpiMng == nullptr) return QV_AGENT_OK;
    DrainTree(g_kpiMng, DrainComponent, module);
    QV_AGENT_Free(g_kpiMng, module);
    g_kpiMng = nullptr;
    return QV_AGENT_OK;
}

QvAgentKpiComponentNode *QV_AGENT_KpiMngComponenetNodeAdd(uint16_t componentId, QvAgentTree *tree,
                                                          QvAgentModule *module) {
    if (tree == nullptr || module == nullptr) return nullptr;
    QvAgentKpiComponentNode filled;
    std::memset(&filled, 0, sizeof filled);
    filled.usComponentId = componentId;
    InitTree(filled.stKpiTree, QV_AGENT_KpiUINT32KeyCompare);
    return static_cast<QvAgentKpiComponentNode *>(AddPayload(&filled, sizeof filled, tree, module));
}

QvAgentKpiComponentNode *QV_AGENT_KpiMngComponenetNodeFind(uint16_t componentId, QvAgentTree *tree) {
    return static_cast<QvAgentKpiComponentNode *>(FindPayload(&componentId, tree));
}

uint32_t QV_AGENT_KpiMngComponenetNodeDelete(uint16_t componentId, QvAgentTree *tree, QvAgentModule *module) {
    return DeleteByKey(&componentId, tree, DrainComponent, module);
}

uint32_t QV_AGENT_KpiMngComponentNodeDestory(QvAgentKpiComponentNode *component, QvAgentModule *module) {
    if (component == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    DrainTree(&component->stKpiTree, DrainKpi, module);
    return QV_AGENT_OK;
}

QvAgentKpiNode *QV_AGENT_KpiMngKpiNodeAdd(uint32_t kpiId, QvAgentTree *tree, QvAgentModule *module) {
    if (tree == nullptr || module == nullptr) return nullptr;
    QvAgentKpiNode filled;
    std::memset(&filled, 0, sizeof filled);
    filled.uiKpiId = kpiId;
    InitTree(filled.stObjectTree, QV_AGENT_KpiObjectKeyCompare);
    return static_cast<QvAgentKpiNode *>(AddPayload(&filled, sizeof filled, tree, module));
}

QvAgentKpiNode *QV_AGENT_KpiMngKpiNodeFind(uint32_t kpiId, QvAgentTree *tree) {
    return static_cast<QvAgentKpiNode *>(FindPayload(&kpiId, tree));
}

uint32_t QV_AGENT_KpiMngKpiNodeDelete(uint32_t kpiId, QvAgentTree *tree, QvAgentModule *module) {
    return DeleteByKey(&kpiId, tree, DrainKpi, module);
}

uint32_t QV_AGENT_KpiMngKpiNodeDestory(QvAgentKpiNode *kpi, QvAgentModule *module) {
    if (kpi == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    DrainTree(&kpi->stObjectTree, nullptr, module);
    return QV_AGENT_OK;
}

QvAgentKpiObjectNode *QV_AGENT_KpiMngObjectNodeAdd(const QvAgentKpiObjectNode *image, QvAgentTree *tree,
                                                   QvAgentModule *module) {
    if (image == nullptr || tree == nullptr || module == nullptr) return nullptr;
    return static_cast<QvAgentKpiObjectNode *>(AddPayload(image, sizeof *image, tree, module));
}

QvAgentKpiObjectNode *QV_AGENT_KpiMngObjectNodeFind(const QvAgentKpiObjectNode *image, QvAgentTree *tree) {
    if (image == nullptr) return nullptr;
    return static_cast<QvAgentKpiObjectNode *>(FindPayload(image, tree));
}

uint32_t QV_AGENT_KpiMngObjectNodeDelete(const QvAgentKpiObjectNode *image, QvAgentTree *tree,
                                         QvAgentModule *module) {
    return DeleteByKey(image, tree, nullptr, module);
}

uint32_t QV_AGNET_SetOnchangeInfo(const QvAgentKpiObject *key, uint32_t limit) { return SetOnChange(key, limit); }

uint32_t QV_AGNET_SetOnchangeInfoEx(const QvAgentKpiObject *key, uint32_t limit) { return SetOnChange(key, limit); }

QvAgentKpiObjectNode *QV_AGENT_GetKpiMngInfoNode(const QvAgentKpiObject *key) {
    if (key == nullptr) return nullptr;
    QvAgentKpiComponentNode *component = QV_AGENT_KpiMngComponenetNodeFind(key->usComponentId, g_kpiMng);
    if (component == nullptr) return nullptr;
    QvAgentKpiNode *kpi = QV_AGENT_KpiMngKpiNodeFind(key->uiKpiId, &component->stKpiTree);
    if (kpi == nullptr) return nullptr;
    const QvAgentKpiObjectNode image = ObjectImage(key->uiObjectId, key->usSubObjectId);
    return QV_AGENT_KpiMngObjectNodeFind(&image, &kpi->stObjectTree);
}

uint32_t QV_Agent_SetKpiOption(const QvAgentKpiObject *object, int32_t optionType, uint32_t /*optionLen*/,
                               const uint32_t *value) {
    if (object == nullptr || value == nullptr || optionType != KPI_OPTION_ONCHANGE) return QV_AGENT_ERR_PARAM;
    QvAgentKpiObject key = *object;
    key.usComponentId = qv::kpi::StoredComponent(object->usComponentId);
    return QV_AGNET_SetOnchangeInfoEx(&key, *value);
}

uint32_t StlmSetKpiOption(const StlmKpiKey *stlmKey, int32_t optionType, uint32_t /*optionLen*/,
                          const uint32_t *value) {
    if (stlmKey == nullptr || value == nullptr || optionType != KPI_OPTION_ONCHANGE) return QV_AGENT_ERR_PARAM;
    QvAgentKpiObject key;
    std::memset(&key, 0, sizeof key);
    key.uiKpiId = stlmKey->usKpiId;
    key.uiObjectId = stlmKey->uiObjectId;
    key.usSubObjectId = stlmKey->usSubObjectId;
    key.usComponentId = qv::kpi::StoredComponent(stlmKey->usComponentId);
    return QV_AGNET_SetOnchangeInfo(&key, *value);
}
