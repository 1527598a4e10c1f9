// The fields of each exported class lie in memory in the order in which the
// binary interface declares them.

#include "layout_probe.h"

#include "PowerHandler.h"
#include "PowerNode.h"
#include "PowerNodeRequest.h"
#include "cmreply.h"

#include <QVariant>

#include <gtest/gtest.h>

namespace layout {

using VariantReplyData = CMReplyData<QVariant>;
using NodeInfo = PowerNodeRequest::NodeInfo;

VELA_LAYOUT_FIELD(PowerNode, m_name);
VELA_LAYOUT_FIELD(PowerNode, m_state);
VELA_LAYOUT_FIELD(PowerNode, m_requiredNodes);
VELA_LAYOUT_FIELD(PowerNode, m_requiredByNodes);
VELA_LAYOUT_FIELD(PowerNode, m_moduleActions);
VELA_LAYOUT_FIELD(PowerNode, m_lockedBy);
VELA_LAYOUT_FIELD(PowerNode, m_enableReply);
VELA_LAYOUT_FIELD(PowerNode, m_disableReply);

VELA_LAYOUT_FIELD(PowerResource, m_resource);
VELA_LAYOUT_FIELD(PowerResource, m_onEnableActionRequest);
VELA_LAYOUT_FIELD(PowerResource, m_onDisableActionRequest);
VELA_LAYOUT_FIELD(PowerResource, m_actionTimeout);

VELA_LAYOUT_FIELD(PowerTarget, m_target);
VELA_LAYOUT_FIELD(PowerTarget, m_reachableTargets);

VELA_LAYOUT_FIELD(PowerNodeRequest, m_id);
VELA_LAYOUT_FIELD(PowerNodeRequest, m_node);
VELA_LAYOUT_FIELD(PowerNodeRequest, m_module);
VELA_LAYOUT_FIELD(PowerNodeRequest, m_action);
VELA_LAYOUT_FIELD(PowerNodeRequest, m_modules);
VELA_LAYOUT_FIELD(PowerNodeRequest, m_reply);
VELA_LAYOUT_FIELD(PowerNodeRequest, m_processing);
VELA_LAYOUT_FIELD(PowerNodeRequest, m_nodes);

VELA_LAYOUT_FIELD(NodeInfo, node);
VELA_LAYOUT_FIELD(NodeInfo, moduleActions);

VELA_LAYOUT_FIELD(PowerHandler, m_modules);
VELA_LAYOUT_FIELD(PowerHandler, m_resources);
VELA_LAYOUT_FIELD(PowerHandler, m_targets);
VELA_LAYOUT_FIELD(PowerHandler, m_requests);
VELA_LAYOUT_FIELD(PowerHandler, m_resourceRequests);
VELA_LAYOUT_FIELD(PowerHandler, m_targetRequests);

VELA_LAYOUT_FIELD(CMReplyAbstractData, m_ref);
VELA_LAYOUT_FIELD(CMReplyAbstractData, m_mutex);
VELA_LAYOUT_FIELD(CMReplyAbstractData, m_condition);
VELA_LAYOUT_FIELD(CMReplyAbstractData, m_finished);
VELA_LAYOUT_FIELD(CMReplyAbstractData, m_error);
VELA_LAYOUT_FIELD(CMReplyAbstractData, m_watchers);
VELA_LAYOUT_FIELD(VariantReplyData, m_value);

VELA_LAYOUT_FIELD(CMVoidReply, m_d);

namespace {

#define OFFSET(object, ClassName, field) offsetIn(ClassName##_##field{}, object)

std::ptrdiff_t endOfBase(const PowerNode& node)
{
    return OFFSET(node, PowerNode, m_disableReply) + static_cast<std::ptrdiff_t>(sizeof(CMReply<void>));
}

TEST(FieldOrder, PowerNode)
{
    const PowerResource node(static_cast<VelaPowerManagerResources::Enum>(1));
    const PowerNode& base = node;
    const std::vector<std::ptrdiff_t> offsets{
        OFFSET(base, PowerNode, m_name),          OFFSET(base, PowerNode, m_state),
        OFFSET(base, PowerNode, m_requiredNodes), OFFSET(base, PowerNode, m_requiredByNodes),
        OFFSET(base, PowerNode, m_moduleActions), OFFSET(base, PowerNode, m_lockedBy),
        OFFSET(base, PowerNode, m_enableReply),   OFFSET(base, PowerNode, m_disableReply)};
    EXPECT_TRUE(strictlyIncreasing(offsets)) << ::testing::PrintToString(offsets);
    // Only the vtable pointer comes before the first field.
    EXPECT_EQ(offsets.front(), static_cast<std::ptrdiff_t>(sizeof(void*)));
}

// Every field of the base is one pointer wide, but m_state, whose gap holds
// the wiring checks' counters: each field sits where it would without them,
// and the class is no larger.
TEST(FieldOrder, PowerNodeFieldsAtTheirPlacesAndSize)
{
    const PowerResource node(static_cast<VelaPowerManagerResources::Enum>(1));
    const PowerNode& base = node;
    const auto word = static_cast<std::ptrdiff_t>(sizeof(void*));
    const std::vector<std::ptrdiff_t> offsets{
        OFFSET(base, PowerNode, m_name),          OFFSET(base, PowerNode, m_state),
        OFFSET(base, PowerNode, m_requiredNodes), OFFSET(base, PowerNode, m_requiredByNodes),
        OFFSET(base, PowerNode, m_moduleActions), OFFSET(base, PowerNode, m_lockedBy),
        OFFSET(base, PowerNode, m_enableReply),   OFFSET(base, PowerNode, m_disableReply)};
    EXPECT_EQ(offsets, (std::vector<std::ptrdiff_t>{word, 2 * word, 3 * word, 4 * word, 5 * word, 6 * word, 7 * word,
                                                    8 * word}));
    EXPECT_EQ(sizeof(PowerNode), 9 * sizeof(void*));
}

TEST(FieldOrder, PowerResourceAfterItsBase)
{
    const PowerResource node(static_cast<VelaPowerManagerResources::Enum>(1));
    const std::vector<std::ptrdiff_t> offsets{
        endOfBase(node) - 1, OFFSET(node, PowerResource, m_resource),
        OFFSET(node, PowerResource, m_onEnableActionRequest), OFFSET(node, PowerResource, m_onDisableActionRequest),
        OFFSET(node, PowerResource, m_actionTimeout)};
    EXPECT_TRUE(strictlyIncreasing(offsets)) << ::testing::PrintToString(offsets);
}

TEST(FieldOrder, PowerTargetAfterItsBase)
{
    const PowerTarget node(static_cast<VelaPowerManagerTargets::Enum>(1));
    const std::vector<std::ptrdiff_t> offsets{endOfBase(node) - 1, OFFSET(node, PowerTarget, m_target),
                                              OFFSET(node, PowerTarget, m_reachableTargets)};
    EXPECT_TRUE(strictlyIncreasing(offsets)) << ::testing::PrintToString(offsets);
}

TEST(FieldOrder, PowerNodeRequestAfterItsQObjectBase)
{
    PowerResource node(static_cast<VelaPowerManagerResources::Enum>(1));
    const PowerNodeRequest request(&node, QStringLiteral("m"), VelaPowerModuleActions::use, {});
    const std::vector<std::ptrdiff_t> offsets{
        static_cast<std::ptrdiff_t>(sizeof(QObject)) - 1,
        OFFSET(request, PowerNodeRequest, m_id),
        OFFSET(request, PowerNodeRequest, m_node),
        OFFSET(request, PowerNodeRequest, m_module),
        OFFSET(request, PowerNodeRequest, m_action),
        OFFSET(request, PowerNodeRequest, m_modules),
        OFFSET(request, PowerNodeRequest, m_reply),
        OFFSET(request, PowerNodeRequest, m_processing),
        OFFSET(request, PowerNodeRequest, m_nodes)};
    EXPECT_TRUE(strictlyIncreasing(offsets)) << ::testing::PrintToString(offsets);
}

TEST(FieldOrder, NodeInfo)
{
    const NodeInfo info{nullptr, {}};
    EXPECT_EQ(OFFSET(info, NodeInfo, node), 0);
    EXPECT_GT(OFFSET(info, NodeInfo, moduleActions), OFFSET(info, NodeInfo, node));
}

TEST(FieldOrder, PowerHandlerAfterItsQObjectBase)
{
    const PowerHandler handler;
    const std::vector<std::ptrdiff_t> offsets{
        static_cast<std::ptrdiff_t>(sizeof(QObject)) - 1,  OFFSET(handler, PowerHandler, m_modules),
        OFFSET(handler, PowerHandler, m_resources),        OFFSET(handler, PowerHandler, m_targets),
        OFFSET(handler, PowerHandler, m_requests),         OFFSET(handler, PowerHandler, m_resourceRequests),
        OFFSET(handler, PowerHandler, m_targetRequests)};
    EXPECT_TRUE(strictlyIncreasing(offsets)) << ::testing::PrintToString(offsets);
    // Nothing follows the last declared field.
    EXPECT_EQ(sizeof(PowerHandler), sizeof(QObject) + 6 * sizeof(void*));
}

TEST(FieldOrder, ReplyData)
{
    const VariantReplyData data;
    const CMReplyAbstractData& base = data;
    const std::vector<std::ptrdiff_t> offsets{
        OFFSET(base, CMReplyAbstractData, m_ref),      OFFSET(base, CMReplyAbstractData, m_mutex),
        OFFSET(base, CMReplyAbstractData, m_condition), OFFSET(base, CMReplyAbstractData, m_finished),
        OFFSET(base, CMReplyAbstractData, m_error),    OFFSET(base, CMReplyAbstractData, m_watchers),
        OFFSET(data, VariantReplyData, m_value)};
    EXPECT_TRUE(strictlyIncreasing(offsets)) << ::testing::PrintToString(offsets);
    EXPECT_EQ(offsets.front(), static_cast<std::ptrdiff_t>(sizeof(void*)));
}

TEST(FieldOrder, ReplyHandleIsOnePointer)
{
    const CMReply<void> reply;
    EXPECT_EQ(OFFSET(reply, CMVoidReply, m_d), 0);
    EXPECT_EQ(sizeof(CMVoidReply), sizeof(void*));
    EXPECT_EQ(sizeof(CMReply<QVariant>), sizeof(void*));
}

} // namespace
} // namespace layout
