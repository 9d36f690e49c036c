/*
 * The defrost-delay controller's state: enable and active with their side effects, switching both
 * off, the loaded reservations' end and the controller's own.
 */
#include "controllers.h"

namespace {

using namespace controllers;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class DefrostState : public ControllerTest {
protected:
    // A controller alone, its first pass done, the next one half a second away.
    void SetUp() override {
        ControllerTest::SetUp();
        controller_ = std::make_unique<DefrostDelay>();
        advance(0.5);
        fakes::clearRecords();
    }
    void TearDown() override {
        controller_.reset();
        ControllerTest::TearDown();
    }
    DefrostDelay &defrost() { return *controller_; }

    void bring(int enable, int active) {
        defrost().setEnable(enable);
        defrost().setActive(active);
        fakes::clearRecords();
    }

    std::unique_ptr<DefrostDelay> controller_;
};

std::string enableMessage(int value) {
    return "Defrost] Info that is changed Enable send KestD : " + std::to_string(value);
}

TEST_F(DefrostState, MutexThatCannotBeLockedRaisesTheStandardErrorAndChangesNothing) {
    bring(0, 0);
    for (const std::function<void()> &operation : std::vector<std::function<void()>>{
             [this] { defrost().getEnable(); }, [this] { defrost().getSchedules(); },
             [this] { defrost().setEnable(1); }, [this] { defrost().setActive(1); }}) {
        virtualtime::failLocks(1);
        EXPECT_THROW(operation(), std::system_error);
    }
    EXPECT_THAT(fakes::texts({fakes::Kind::Setting, fakes::Kind::Notification}), IsEmpty());
    EXPECT_EQ(defrost().getEnable(), 0);
    EXPECT_EQ(defrost().getActive(), 0);
}

TEST_F(DefrostState, EnableIsPersistedLoggedAndAnnouncedAsOnWhateverIsNotZero) {
    for (const auto &[value, on] : std::vector<std::pair<int, bool>>{
             {1, true}, {0, false}, {5, true}, {-1, true}, {1, true}, {1, true}}) {
        SCOPED_TRACE(value);
        fakes::clearRecords();
        defrost().setEnable(value);
        EXPECT_EQ(defrost().getEnable(), value);
        EXPECT_THAT(
            fakes::texts(),
            ElementsAre(setting(kDefrostStatus, value), enableMessage(value),
                        on ? "SendDelayDefrostNotify(true)" : "SendDelayDefrostNotify(false)"));
        EXPECT_EQ(priorityOf(enableMessage(value)), DLOG_DEBUG);
    }
}

TEST_F(DefrostState, ActiveIsPersistedAndCommandedButNotAnnounced) {
    const std::vector<std::pair<int, Texts>> cases{
        {1, {command("ENABLE")}}, {0, {command("DISABLE")}}, {-1, {}}, {2, {}}};
    for (const int enable : {0, 1, 5, -1}) {
        defrost().setEnable(enable);
        for (const auto &[active, commands] : cases) {
            SCOPED_TRACE(testing::Message() << "enable " << enable << ", active " << active);
            fakes::clearRecords();
            defrost().setActive(active);
            EXPECT_EQ(defrost().getActive(), active);
            Texts expected{setting(kDefrostActivate, active)};
            expected.insert(expected.end(), commands.begin(), commands.end());
            EXPECT_EQ(effects(), expected);
            EXPECT_EQ(fakes::log::has("Defrost] Disable"), enable == 0);
        }
    }
}

TEST_F(DefrostState, ActiveWhileSwitchedOffIsOnlyRemarkedUpon) {
    bring(0, 0);
    defrost().setActive(1);
    EXPECT_THAT(fakes::texts(),
                ElementsAre(setting(kDefrostActivate, 1), "Defrost] Disable",
                            " [UTC] Send Time : Fri May  1 10:03:00 2026\n",
                            "Send To Micom Info that SET_SMARTGRID_ENABLE", command("ENABLE")));
    EXPECT_EQ(priorityOf("Defrost] Disable"), DLOG_DEBUG);
}

TEST_F(DefrostState, SwitchingOffChangesAndReportsOnlyWhatIsNotOff) {
    const Texts activeOff{setting(kDefrostActivate, 0), command("DISABLE")};
    const Texts enableOff{setting(kDefrostStatus, 0), "SendDelayDefrostNotify(false)"};
    for (const int enable : {0, 1, 5, -1}) {
        for (const int active : {0, 1, -1}) {
            SCOPED_TRACE(testing::Message() << "enable " << enable << ", active " << active);
            bring(enable, active);
            defrost().isActiveDisable();
            Texts expected;
            if (active != 0) {
                expected.insert(expected.end(), activeOff.begin(), activeOff.end());
            }
            if (enable != 0) {
                expected.insert(expected.end(), enableOff.begin(), enableOff.end());
            }
            EXPECT_EQ(effects(), expected);
            EXPECT_EQ(defrost().getEnable(), 0);
            EXPECT_EQ(defrost().getActive(), 0);
        }
    }
}

TEST_F(DefrostState, SwitchingOffLogsTheEnableAfterTheCommand) {
    bring(1, 1);
    defrost().isActiveDisable();
    EXPECT_THAT(fakes::texts({Kind::Log}),
                ElementsAre(" [UTC] Send Time : Fri May  1 10:03:00 2026\n",
                            "Send To Micom Info that SET_SMARTGRID_DISABLE", enableMessage(0)));
    EXPECT_EQ(priorityOf(enableMessage(0)), DLOG_DEBUG);
}

TEST_F(DefrostState, SwitchingOffAgainIsSilent) {
    bring(1, 1);
    defrost().isActiveDisable();
    fakes::clearRecords();
    defrost().isActiveDisable();
    EXPECT_THAT(fakes::texts(), IsEmpty());
}

TEST_F(DefrostState, SettingsThatCannotBeWrittenStopNothing) {
    for (const char *key : {kDefrostStatus, kDefrostActivate, fakes::kMicomCommand}) {
        fakes::settings::failWrites(key);
    }
    defrost().setEnable(1);
    defrost().setActive(1);
    EXPECT_EQ(defrost().getEnable(), 1);
    EXPECT_EQ(defrost().getActive(), 1);
    defrost().isActiveDisable();
    EXPECT_EQ(defrost().getEnable(), 0);
    EXPECT_EQ(defrost().getActive(), 0);
    EXPECT_THAT(effects(),
                ElementsAre("SendDelayDefrostNotify(true)", "SendDelayDefrostNotify(false)"));
}

TEST_F(DefrostState, EveryLineGoesToThePlatformLogAndToStandardOutput) {
    defrost().setEnable(0);
    defrost().setActive(1);
    defrost().initSchedules();
    ASSERT_GE(fakes::log::lines().size(), 12U);
    for (const fakes::log::Line &line : fakes::log::lines()) {
        EXPECT_EQ(line.buffer, LOG_ID_MAIN);
        EXPECT_EQ(line.tag, "corvane");
        const std::string at = line.function + ":" + std::to_string(line.line);
        EXPECT_THAT(standardOutput(), HasSubstr("[" + at + "] " + line.message + "\n"));
    }
    EXPECT_EQ(fakes::log::find(enableMessage(0)).file, "DefrostDelay.cpp");
    EXPECT_EQ(fakes::log::find(enableMessage(0)).function, "setEnable");
}

TEST_F(DefrostState, EveryOperationWaitsForTheControllersMutex) {
    const std::vector<std::pair<const char *, std::function<void()>>> operations{
        {"getEnable", [this] { defrost().getEnable(); }},
        {"getActive", [this] { defrost().getActive(); }},
        {"setEnable", [this] { defrost().setEnable(1); }},
        {"setActive", [this] { defrost().setActive(1); }},
        {"isActiveDisable", [this] { defrost().isActiveDisable(); }},
        {"deleteSchedules", [this] { defrost().deleteSchedules(); }},
        {"initSchedules", [this] { defrost().initSchedules(); }},
        {"getSchedules", [this] { (void)defrost().getSchedules(); }},
        {"checkEmptyId", [this] { defrost().checkEmptyId(); }}};
    for (const auto &[name, operation] : operations) {
        EXPECT_TRUE(waitsForMutex([this] { defrost().checkEmptyId(); }, operation)) << name;
    }
}

TEST_F(DefrostState, LoadingHoldsTheMutexFromTheSelectToTheLastReservation) {
    for (const char *text :
         {"SELECT * FROM defrost_usage_table ORDER BY id DESC", "Defrost] id : 0"}) {
        const auto ask = [this] { EXPECT_THAT(defrost().getSchedules(), SizeIs(2)); };
        EXPECT_TRUE(waitsWhileAt(text, ask, [this] { defrost().initSchedules(); })) << text;
    }
}

TEST_F(DefrostState, DroppedReservationsAreGoneFromMemoryOnly) {
    EXPECT_THAT(defrost().getSchedules(), SizeIs(2));
    defrost().deleteSchedules();
    EXPECT_THAT(defrost().getSchedules(), IsEmpty());
    defrost().initSchedules();
    EXPECT_THAT(defrost().getSchedules(), SizeIs(2));
}

TEST_F(DefrostState, FinalizeDropsTheReservationsThenJoinsTheWorkerWithinASecond) {
    const std::int64_t before = virtualtime::elapsedMs();
    std::thread ending([this] { defrost()._finalize(); });
    virtualtime::settle(); // now the worker is being waited for
    EXPECT_THAT(defrost().getSchedules(), IsEmpty());
    EXPECT_FALSE(fakes::log::has("stop DefrostDelay Thread!!"));
    ending.join();
    EXPECT_LE(virtualtime::elapsedMs() - before, 1000);
    EXPECT_EQ(fakes::log::count("stop DefrostDelay Thread!!"), 1);
}

TEST_F(DefrostState, FinalizeMayBeRepeatedAndNothingRunsAfterIt) {
    defrost()._finalize();
    const std::int64_t before = virtualtime::elapsedMs();
    defrost()._finalize();
    EXPECT_EQ(virtualtime::elapsedMs(), before);
    advance(3600);
    EXPECT_EQ(fakes::log::count("stop DefrostDelay Thread!!"), 1);
    EXPECT_THAT(micomCommands(), IsEmpty());
}

TEST_F(DefrostState, DestructorFinalizes) {
    controller_.reset();
    EXPECT_EQ(fakes::log::count("stop DefrostDelay Thread!!"), 1);
}

} // namespace
