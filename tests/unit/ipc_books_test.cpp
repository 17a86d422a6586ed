// SPDX-License-Identifier: Apache-2.0
// What a process counts: holders of objects, one-way requests under way, what a peer gets wrong, connections; and the
// notices of deaths.
#include "ipc_fixture.h"
#include "vexa/ipc/message_option.h"

namespace VEXA::ipc {
namespace {

TEST(ObjectTableTest, LivesByItsHoldersAndNotByTheirDebts)
{
    constexpr EndpointId GIVER = 1;
    constexpr EndpointId TAKER = 2;
    ObjectTable table;
    sptr<IRemoteObject> object(new IPCObjectStub);
    const ObjectId id = table.AddHolder(object, GIVER);
    EXPECT_EQ(table.AddHolder(object, GIVER), id);
    EXPECT_EQ(table.Find(id, TAKER), nullptr);

    // A release overtakes the grant that it answers.
    for (const int32_t count : {-1, 1, 1}) {
        EXPECT_EQ(table.Find(id, TAKER), nullptr);
        EXPECT_EQ(table.Adjust(id, TAKER, count), nullptr);
    }
    EXPECT_EQ(table.Find(id, TAKER), object);

    EXPECT_EQ(table.Adjust(id, GIVER, -1), nullptr);
    EXPECT_EQ(table.Find(id, GIVER), object) << "it has been handed the object twice";
    EXPECT_EQ(table.Adjust(id, GIVER, -1), nullptr);
    EXPECT_EQ(table.Find(id, TAKER), object);
    // A debt of a third keeps nothing alive, and goes with the object.
    EXPECT_EQ(table.Adjust(id, 3, -1), nullptr);
    EXPECT_EQ(table.Adjust(id, TAKER, -1), object);
    EXPECT_EQ(table.Size(), 0U);
    EXPECT_TRUE(table.DropHolder(3).empty());

    const ObjectId again = table.AddHolder(object, TAKER);
    EXPECT_NE(again, id) << "a number is never used again";
    EXPECT_EQ(table.Adjust(id, TAKER, -1), nullptr) << "nor is it another's";
    EXPECT_EQ(table.DropHolder(TAKER), std::vector<sptr<IRemoteObject>>{object});
    EXPECT_EQ(table.Size(), 0U);
    table.SetContextObject(object);
    EXPECT_EQ(table.Find(0, 4), object) << "everybody's";
}

TEST(MessageOptionTest, WaitsEightSecondsUnlessItIsTold)
{
    EXPECT_EQ(MessageOption().GetWaitTime(), 8);
    EXPECT_EQ(MessageOption(0, 0).GetWaitTime(), 8);
}

// Notes when it begins and ends, and meanwhile has the notifier tell what it may, as its other threads would. Uses it
// once more when it goes with its notice.
class Noted : public IRemoteObject::DeathRecipient {
public:
    Noted(char name, std::string& notes, DeathNotifier& notifier) : name_(name), notes_(notes), notifier_(notifier) {}
    ~Noted() override { notes_ += notifier_.Cancel(nullptr, nullptr) ? '?' : '~'; }
    void OnRemoteDied(const wptr<IRemoteObject>&) override
    {
        notes_ += name_;
        while (notifier_.TellOne()) {
        }
        throw notes_ += ')';
    }

private:
    const char name_;
    std::string& notes_;
    DeathNotifier& notifier_;
};

TEST(DeathNotifierTest, TellsOfOneProcessInOrderAndNoRecipientTwiceAtATime)
{
    DeathNotifier notifier(&StartNone);
    std::string notes;
    const sptr<Noted> twice(new Noted('b', notes, notifier));
    notifier.Post(1, nullptr, new Noted('a', notes, notifier));
    for (const EndpointId process : std::vector<EndpointId>{1, 2, 2}) {
        notifier.Post(process, nullptr, twice);
    }
    notifier.Post(1, nullptr, new Noted('c', notes, notifier));
    notifier.Post(3, nullptr, new Noted('d', notes, notifier));
    EXPECT_TRUE(notifier.Cancel(nullptr, twice)) << "one of three";
    while (notifier.TellOne()) {
    }
    EXPECT_EQ(notes, "abd)~)b))~c)~");
    EXPECT_FALSE(notifier.Cancel(nullptr, twice));
}

}  // namespace
}  // namespace VEXA::ipc
