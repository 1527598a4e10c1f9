// The order of the virtual operations of the nodes and of the typed reply
// data, read from pointers to the virtual member functions (Itanium ABI).

#include "layout_probe.h"

#include "PowerNode.h"
#include "cmreply.h"

#include <QVariant>

#include <gtest/gtest.h>

#ifdef VELA_LAYOUT_ITANIUM_ABI

namespace layout {
namespace {

// The destructor takes the first two slots (complete and deleting); the
// declared operations follow in their order.
template <typename Node>
std::vector<std::ptrdiff_t> nodeSlots()
{
    return {vtableSlot(&Node::onEnableAction),   vtableSlot(&Node::onDisableAction),
            vtableSlot(&Node::dependencies),     vtableSlot(&Node::orderedDependencies),
            vtableSlot(&Node::requiresNode),     vtableSlot(&Node::requiredByNode),
            vtableSlot(&Node::isStateReachable), vtableSlot(&Node::type)};
}

const std::vector<std::ptrdiff_t> kNodeSlots{2, 3, 4, 5, 6, 7, 8, 9};

TEST(VirtualSlots, PowerNodeInDeclaredOrder)
{
    EXPECT_EQ(nodeSlots<PowerNode>(), kNodeSlots);
}

TEST(VirtualSlots, NodeKindsKeepTheBaseOrder)
{
    EXPECT_EQ(nodeSlots<PowerResource>(), kNodeSlots);
    EXPECT_EQ(nodeSlots<PowerTarget>(), kNodeSlots);
}

TEST(VirtualSlots, ReplyDataValueGetterThenVariantSetter)
{
    const std::vector<std::ptrdiff_t> expected{2, 3};
    EXPECT_EQ((std::vector<std::ptrdiff_t>{vtableSlot(&CMReplyData<QVariant>::value),
                                           vtableSlot(&CMReplyData<QVariant>::setVariant)}),
              expected);
    EXPECT_EQ((std::vector<std::ptrdiff_t>{vtableSlot(&CMReplyData<QList<CMVoidReply>>::value),
                                           vtableSlot(&CMReplyData<QList<CMVoidReply>>::setVariant)}),
              expected);
}

TEST(VirtualSlots, NonVirtualFunctionHasNoSlot)
{
    // The probe itself: a plain member function is told apart.
    EXPECT_EQ(vtableSlot(&PowerNode::name), -1);
    EXPECT_EQ(vtableSlot(&CMReplyData<QVariant>::finishWithValue), -1);
}

} // namespace
} // namespace layout

#endif
