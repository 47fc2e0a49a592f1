#include <gtest/gtest.h>

#include "Ferrim/Ferrim.h"
#include "Ferrim/IMap.h"
#include "Ferrim/UvMapper.h"

using namespace Quelin;

namespace {

// Every start-up and shut-down of the test hooks, in order.
Stack<String>& journal() {
    static Stack<String> sJournal;
    return sJournal;
}

void firstUp() { journal().push_back("first+"); }
void firstDown() { journal().push_back("first-"); }
void startOnlyUp() { journal().push_back("startOnly+"); }

// Registered before any start-up, like the module's own hooks: a plain-function
// pair, a start-up without shut-down, and a pair of callable objects.
Ferrim::HookRegistrar const sFirst(Ferrim::Hook{&firstUp, nullptr, &firstDown, nullptr, "Test first"});
Ferrim::HookRegistrar const sStartOnly(Ferrim::Hook{&startOnlyUp, nullptr, nullptr, nullptr, "Test start only"});
Ferrim::HookRegistrar const sObjects(Ferrim::Hook{
    nullptr, makeSharedPtr<Function<void()>>([] { journal().push_back("objects+"); }), nullptr,
    makeSharedPtr<Function<void()>>([] { journal().push_back("objects-"); }), "Test objects"});

TEST(LifecycleTest, HooksAndTypesLiveFromTheFirstStartupToTheLastShutdown) {
    ASSERT_FALSE(Ferrim::isStarted()) << "another test left the library started";
    journal().clear(); // other tests' start-ups ran the hooks too
    EXPECT_FALSE(EntityDatabase::isRegistered("Zatho.UvMapper"));
    Ferrim::startup();
    Ferrim::startup();
    EXPECT_TRUE(Ferrim::isStarted());
    EXPECT_FALSE(Ferrim::isInTransition());
    EXPECT_EQ(journal(), (Stack<String>{"first+", "startOnly+", "objects+"}));
    for (StringView name : {"Zatho.ConstantColorMap", "Zatho.UnsupportedMap", "Zatho.UvMapper"}) {
        EXPECT_TRUE(EntityDatabase::isRegistered(name)) << name;
        EXPECT_TRUE(DataObjects::TypeDatabase::findType(name)) << name;
    }
    EXPECT_TRUE(std::dynamic_pointer_cast<UvMapper>(EntityDatabase::create("Zatho.UvMapper")));
    Ferrim::shutdown();
    EXPECT_TRUE(Ferrim::isStarted());
    EXPECT_EQ(journal().size(), 3u) << "no shut-down before the last one";
    EXPECT_TRUE(EntityDatabase::isRegistered("Zatho.UvMapper")) << "still started once";
    Ferrim::shutdown();
    EXPECT_FALSE(Ferrim::isStarted());
    EXPECT_FALSE(Ferrim::isInTransition());
    // Reverse order; the hook without a shut-down is skipped.
    EXPECT_EQ(journal(), (Stack<String>{"first+", "startOnly+", "objects+", "objects-", "first-"}));
    EXPECT_FALSE(EntityDatabase::isRegistered("Zatho.UvMapper"));
    EXPECT_FALSE(DataObjects::TypeDatabase::findType("Zatho.ColorOrMap"));
    // A restart runs the hooks again.
    Ferrim::startup();
    Ferrim::shutdown();
    EXPECT_EQ(std::count(journal().begin(), journal().end(), "first+"), 2);
    EXPECT_EQ(std::count(journal().begin(), journal().end(), "first-"), 2);
}

} // namespace
