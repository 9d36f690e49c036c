/*
 * What the remote side can ask of defrost delay: read and set the wish for it, and read, create,
 * add and delete reservations.
 */
#include "controllers.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace {

using namespace controllers;
using fakes::proxy::Created;
using fakes::proxy::createDefrostReservation;
using fakes::proxy::delDefrostReservation;
using fakes::proxy::getDefrostReservations;
using fakes::proxy::reservation;
using fakes::proxy::setDefrostReservation;
using fakes::proxy::setDelayDefrost;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const std::string kDescending = "SELECT * FROM defrost_usage_table ORDER BY id DESC";

// A reservation as the tests order it, and as it is in the table under an id.
const KestDefrostReservation kSpring =
    reservation("0000-03-01T01:00:00", "0000-05-31T00:00:00", "02:00:00", "Spring nights");
Texts spring(const std::string &id) {
    return {id, "Spring nights", "0000-03-01T01:00:00", "0000-05-31T00:00:00", "02:00:00"};
}

Texts membersOf(const KestDefrostReservation &entry) {
    return {FAKES_TEXT(entry.id), FAKES_TEXT(entry.description), FAKES_TEXT(entry.startTime),
            FAKES_TEXT(entry.endTime), FAKES_TEXT(entry.period)};
}

std::string insertOf(const Texts &fields) {
    return "INSERT INTO defrost_usage_table (id, description, startTime, endTime, period) "
           "values('" +
           fields[0] + "', '" + fields[1] + "', '" + fields[2] + "', '" + fields[3] + "', '" +
           fields[4] + "');";
}

class DefrostHandlers : public ControllerTest {
protected:
    // 10:03:03.5 on return; the worker's next pass comes at 10:03:04.
    void SetUp() override {
        ControllerTest::SetUp();
        launch();
    }

    static Texts storedIds() {
        Texts ids;
        for (const Texts &row : stored()) {
            ids.push_back(row[0]);
        }
        return ids;
    }
    static fakes::storage::Rows stored() {
        return fakes::storage::query(kFile, "SELECT * FROM defrost_usage_table ORDER BY id");
    }
    static void removeStored(const std::string &id) {
        fakes::storage::execute(kFile, "DELETE FROM defrost_usage_table WHERE id = " + id);
    }
    static Texts loadedIds() {
        Texts ids;
        for (const Corvane::scheduleRecord &record : defrost().getSchedules()) {
            ids.push_back(record.id);
        }
        return ids;
    }
};

// ---- Without a controller, and what all have in common ----

TEST_F(DefrostHandlers, EachAnswersNothingOnceTheControllerIsGoneButLogsThatItWasAsked) {
    EnergyManager::FinalThread();
    fakes::clearRecords();
    const fakes::proxy::Value enabled = fakes::proxy::getDelayDefrost();
    EXPECT_EQ(enabled.answer, 0);
    EXPECT_EQ(enabled.value, -99);
    EXPECT_EQ(setDelayDefrost(1), 0);
    const fakes::proxy::Reservations all = getDefrostReservations();
    EXPECT_EQ(all.answer, 0);
    EXPECT_EQ(all.count, -99);
    const Created created = createDefrostReservation(kSpring);
    EXPECT_EQ(created.answer, 0);
    EXPECT_EQ(created.error, 0);
    EXPECT_EQ(FAKES_TEXT(created.entry.id), "");
    EXPECT_EQ(created.text, "--------");
    EXPECT_EQ(setDefrostReservation(kSpring), 0);
    EXPECT_EQ(delDefrostReservation("2"), 0);
    EXPECT_EQ(delDefrostReservation("no number"), 0);
    EXPECT_THAT(fakes::texts({Kind::Log, Kind::Setting, Kind::Notification, Kind::Sql}),
                ElementsAre("KestRegisterGetDelayDefrostFunc", "KestRegisterSetDelayDefrostFunc",
                            "KestRegisterGetDefrostReservationsFunc",
                            "KestRegisterCreateDefrostReservationsFunc",
                            "KestRegisterSetDefrostReservationsFunc",
                            "KestRegisterDelDefrostReservationsFunc",
                            "KestRegisterDelDefrostReservationsFunc"));
}

TEST_F(DefrostHandlers, EachLogsTheNameOfItsRegistrationFirst) {
    const std::vector<std::pair<const char *, std::function<void()>>> requests{
        {"KestRegisterGetDelayDefrostFunc", [] { (void)fakes::proxy::getDelayDefrost(); }},
        {"KestRegisterSetDelayDefrostFunc", [] { setDelayDefrost(1); }},
        {"KestRegisterGetDefrostReservationsFunc", [] { (void)getDefrostReservations(); }},
        {"KestRegisterCreateDefrostReservationsFunc", [] { createDefrostReservation(kSpring); }},
        {"KestRegisterSetDefrostReservationsFunc", [] { setDefrostReservation(kSpring); }},
        {"KestRegisterDelDefrostReservationsFunc", [] { delDefrostReservation("2"); }}};
    for (const auto &[name, request] : requests) {
        fakes::clearRecords();
        request();
        EXPECT_EQ(fakes::log::messages().front(), name);
        EXPECT_EQ(priorityOf(name), DLOG_DEBUG);
    }
}

TEST_F(DefrostHandlers, EachUseOfTheTableWaitsForTheControllersMutex) {
    const fakes::proxy::Handlers handlers = fakes::proxy::handlers();
    KestDefrostReservation entry = kSpring;
    KestDefrostReservation entries[4];
    char text[] = "--------";
    int number = 0;
    const std::vector<std::pair<const char *, std::function<void()>>> requests{
        {"get", [&] { handlers.getDefrostReservations(entries, &number); }},
        {"create", [&] { handlers.createDefrostReservations(&entry, text, &number); }},
        {"set", [&] { handlers.setDefrostReservations(&entry); }},
        {"delete", [&] { handlers.delDefrostReservations(nullptr, "2"); }}};
    for (const auto &[name, request] : requests) {
        EXPECT_TRUE(waitsForMutex([] { defrost().checkEmptyId(); }, request)) << name;
    }
}

// ---- The wish read ----

TEST_F(DefrostHandlers, EnableIsAnsweredAsItIs) {
    for (const int value : {0, 1, 5}) {
        defrost().setEnable(value);
        fakes::clearRecords();
        const fakes::proxy::Value enabled = fakes::proxy::getDelayDefrost();
        EXPECT_EQ(enabled.answer, 1);
        EXPECT_EQ(enabled.value, value);
        EXPECT_THAT(fakes::texts({Kind::Setting, Kind::Notification, Kind::Sql, Kind::Proxy}),
                    IsEmpty());
    }
}

TEST_F(DefrostHandlers, UnknownEnableIsLoadedOnceMoreAndAnsweredWhateverItIsThen) {
    for (const int value : {1, 0, -1}) {
        SCOPED_TRACE(value);
        defrost().setEnable(-1);
        removeStored("0");
        fakes::settings::set(kDefrostStatus, value);
        fakes::clearRecords();
        const fakes::proxy::Value enabled = fakes::proxy::getDelayDefrost();
        EXPECT_EQ(enabled.answer, 1);
        EXPECT_EQ(enabled.value, value);
        EXPECT_THAT(fakes::texts({Kind::Proxy}), SizeIs(6)); // the handlers again, once
        EXPECT_THAT(storedIds(), ElementsAre("0", "1"));     // the defaults again
    }
}

// ---- The wish set ----

TEST_F(DefrostHandlers, AnyValueButZeroSwitchesOn) {
    for (const int value : {1, 5, -1}) {
        defrost().setEnable(0);
        fakes::clearRecords();
        EXPECT_EQ(setDelayDefrost(value), 1);
        EXPECT_THAT(effects(),
                    ElementsAre(setting(kDefrostStatus, 1), "SendDelayDefrostNotify(true)"));
    }
}

TEST_F(DefrostHandlers, ZeroSwitchesOffTheStateFirstIfItIsNotOff) {
    for (const int active : {1, -1, 0}) {
        SCOPED_TRACE(active);
        defrost().setEnable(1);
        defrost().setActive(active);
        fakes::clearRecords();
        EXPECT_EQ(setDelayDefrost(0), 1);
        Texts expected{setting(kDefrostStatus, 0), "SendDelayDefrostNotify(false)"};
        if (active != 0) {
            expected.insert(expected.begin(), {setting(kDefrostActivate, 0), command("DISABLE")});
        }
        EXPECT_EQ(effects(), expected);
    }
}

TEST_F(DefrostHandlers, BesideAnEventDelayStaysOffAndTheRefusalIsAnnounced) {
    storeEvent("2", "01:00:00", "2026-05-01T14:00:00");
    for (const int value : {1, 0}) {
        fakes::clearRecords();
        EXPECT_EQ(setDelayDefrost(value), 1);
        EXPECT_THAT(effects(), ElementsAre("SendDelayDefrostNotify(false)"));
        EXPECT_EQ(defrost().getEnable(), 0);
    }
}

TEST_F(DefrostHandlers, BesideAnEventDelayThatIsOnIsSwitchedOffWhateverWasAsked) {
    storeEvent("2", "01:00:00", "2026-05-01T14:00:00");
    for (const int value : {1, 0}) {
        for (const int enable : {1, 5, -1}) {
            defrost().setEnable(enable);
            defrost().setActive(1);
            fakes::clearRecords();
            EXPECT_EQ(setDelayDefrost(value), 1);
            EXPECT_THAT(effects(),
                        ElementsAre(setting(kDefrostStatus, 0), "SendDelayDefrostNotify(false)"));
            EXPECT_EQ(defrost().getActive(), 1); // not this request's business
        }
    }
}

TEST_F(DefrostHandlers, EventOfLevelZeroIsNoObstacle) {
    storeEvent("0", "01:00:00", "2026-05-01T14:00:00");
    EXPECT_EQ(setDelayDefrost(1), 1);
    EXPECT_EQ(defrost().getEnable(), 1);
}

class DefrostHandlersAlone : public ControllerTest {};

TEST_F(DefrostHandlersAlone, BeforeDemandResponseIsThereAnEventIsNotAskedFor) {
    storeEvent("2", "01:00:00", "2026-05-01T14:00:00");
    EnergyManager::LaunchApp();
    advance(1.5);
    ASSERT_EQ(EnergyManager::GetEnergyDR(), nullptr);
    EXPECT_EQ(setDelayDefrost(1), 1);
    EXPECT_EQ(defrost().getEnable(), 1);
}

TEST_F(DefrostHandlersAlone, RequestBeforeTheLaunchHasNoHandler) {
    EXPECT_EQ(setDelayDefrost(1), fakes::proxy::kRefused);
}

// ---- Reservations read ----

TEST_F(DefrostHandlers, ReservationsAreAnsweredLowestIdFirst) {
    fakes::storage::execute(kFile, insertOf(spring("3")));
    const fakes::proxy::Reservations all = getDefrostReservations();
    EXPECT_EQ(all.answer, 1);
    EXPECT_EQ(all.count, 3);
    ASSERT_THAT(all.entries, SizeIs(3));
    EXPECT_THAT(membersOf(all.entries[0]), ElementsAre("0", "Summer Season", "0000-05-01T15:00:00",
                                                       "0000-10-31T00:00:00", "04:00:00"));
    EXPECT_THAT(membersOf(all.entries[1]), ElementsAre("1", "Winter Season", "0000-11-01T06:00:00",
                                                       "0000-04-30T00:00:00", "04:00:00"));
    EXPECT_EQ(membersOf(all.entries[2]), spring("3"));
    EXPECT_THAT(storageCalls(), ElementsAre("open", "prepare", "close"));
    EXPECT_THAT(fakes::storage::statements(),
                ElementsAre("SELECT * FROM defrost_usage_table ORDER BY id ASC"));
}

TEST_F(DefrostHandlers, TextsAreCopiedExactlyAsFarAsTheirMembersGo) {
    const Texts brimful{"3", std::string(30, 'd'), std::string(20, 's'), std::string(20, 'e'),
                        std::string(10, 'p')};
    Texts longer{"2"};
    for (std::size_t i = 1; i < brimful.size(); ++i) {
        longer.push_back(brimful[i] + "!");
    }
    fakes::storage::execute(kFile, "DELETE FROM defrost_usage_table; " + insertOf(brimful) +
                                       insertOf(longer));
    const fakes::proxy::Reservations all = getDefrostReservations();
    ASSERT_THAT(all.entries, SizeIs(2));
    Texts cut = brimful;
    cut[0] = "2";
    EXPECT_EQ(membersOf(all.entries[0]), cut);
    EXPECT_EQ(membersOf(all.entries[1]), brimful);
}

TEST_F(DefrostHandlers, NoReservationsAreNoAnswer) {
    fakes::storage::execute(kFile, "DELETE FROM defrost_usage_table");
    const fakes::proxy::Reservations all = getDefrostReservations();
    EXPECT_EQ(all.answer, 0);
    EXPECT_EQ(all.count, -99);
}

TEST_F(DefrostHandlers, ReservationsThatCannotBeReadAreNoAnswer) {
    fakes::storage::failStatements(fakes::storage::Trouble::IoError);
    const fakes::proxy::Reservations all = getDefrostReservations();
    EXPECT_EQ(all.answer, 0);
    EXPECT_EQ(all.count, -99);
}

TEST_F(DefrostHandlers, MoreRowsThanFourFillFourEntries) {
    for (const char *id : {"2", "3", "4", "5"}) {
        fakes::storage::execute(kFile, insertOf(spring(id)));
    }
    std::array<KestDefrostReservation, 5> room{};
    std::memset(&room, '#', sizeof room);
    int count = -99;
    EXPECT_EQ(fakes::proxy::handlers().getDefrostReservations(room.data(), &count), 1);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(FAKES_TEXT(room[3].id), "3");
    EXPECT_EQ(room[4].id[0], '#');
}

// ---- Reservations created ----

TEST_F(DefrostHandlers, CreatedReservationsGetTheIdsTwoAndThreeAndAThirdIsRefused) {
    for (const char *id : {"2", "3"}) {
        fakes::clearRecords();
        const Created created = createDefrostReservation(kSpring);
        EXPECT_EQ(created.answer, 1);
        EXPECT_EQ(created.error, 0);
        EXPECT_EQ(membersOf(created.entry), spring(id));
        EXPECT_EQ(created.text, id);
        EXPECT_EQ(fakes::storage::attempts(insertOf(spring(id))), 1);
        EXPECT_THAT(stored(), Contains(spring(id)));
    }
    fakes::clearRecords();
    const Created third = createDefrostReservation(kSpring);
    EXPECT_EQ(third.answer, 0);
    EXPECT_EQ(third.error, 507);
    EXPECT_EQ(FAKES_TEXT(third.entry.id), "");
    EXPECT_EQ(third.text, "--------");
    EXPECT_THAT(fakes::proxy::notifications(), IsEmpty());
    EXPECT_THAT(storedIds(), ElementsAre("0", "1", "2", "3"));
}

TEST_F(DefrostHandlers, CreationIsStoredLoggedAnnouncedAndLoadedInThisOrder) {
    createDefrostReservation(kSpring);
    const Texts all = fakes::texts({Kind::Log, Kind::Sql, Kind::Notification});
    EXPECT_THAT(Texts(all.begin(), all.begin() + 7),
                ElementsAre("KestRegisterCreateDefrostReservationsFunc", kDescending,
                            insertOf(spring("2")), "Records created successfully", "ret: 0",
                            "SendDefrostReservationsNotify(0, 2)", kDescending));
    EXPECT_EQ(priorityOf("ret: 0"), DLOG_DEBUG);
    EXPECT_THAT(storageCalls(), ElementsAre("open", "prepare", "close", "open", "exec", "close",
                                            "open", "prepare", "close"));
    EXPECT_THAT(loadedIds(), ElementsAre("2", "1", "0"));
}

TEST_F(DefrostHandlers, CreationIsAnnouncedWithTheOneEntry) {
    createDefrostReservation(kSpring);
    const auto sent = fakes::proxy::reservationNotifications();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].action, 0);
    ASSERT_THAT(sent[0].entries, SizeIs(1));
    EXPECT_EQ(membersOf(sent[0].entries[0]), spring("2"));
}

TEST_F(DefrostHandlers, CreatedReservationCountsOnTheNextPass) {
    setDelayDefrost(1);
    fakes::clearRecords();
    createDefrostReservation(
        reservation("0000-01-01T10:00:00", "0000-12-31T00:00:00", "01:00:00", "now"));
    EXPECT_THAT(micomCommands(), IsEmpty());
    advance(1);
    EXPECT_THAT(timesOfCommand("ENABLE"), ElementsAre("2026-05-01T10:03:04"));
    EXPECT_EQ(delDefrostReservation("2"), 1);
    advance(1);
    EXPECT_THAT(timesOfCommand("DISABLE"), ElementsAre("2026-05-01T10:03:05"));
}

TEST_F(DefrostHandlers, DeletedIdIsGivenAgain) {
    createDefrostReservation(kSpring);
    createDefrostReservation(kSpring);
    EXPECT_EQ(delDefrostReservation("2"), 1);
    EXPECT_EQ(createDefrostReservation(kSpring).text, "2");
}

TEST_F(DefrostHandlers, IdOfADeletedDefaultIsNotGivenAndNoErrorIsSaid) {
    for (const char *id : {"0", "1"}) {
        defrost()._initialize();
        removeStored(id);
        fakes::clearRecords();
        const Created created = createDefrostReservation(kSpring);
        EXPECT_EQ(created.answer, 0);
        EXPECT_EQ(created.error, 0);
        EXPECT_EQ(FAKES_TEXT(created.entry.id), "");
        EXPECT_EQ(setDefrostReservation(kSpring), 0);
        EXPECT_THAT(fakes::storage::statements(), ElementsAre(kDescending, kDescending));
        EXPECT_THAT(fakes::proxy::notifications(), IsEmpty());
    }
}

TEST_F(DefrostHandlers, EmptyTableHasNoIdToGive) {
    fakes::storage::execute(kFile, "DELETE FROM defrost_usage_table");
    EXPECT_EQ(createDefrostReservation(kSpring).error, 507);
    EXPECT_EQ(setDefrostReservation(kSpring), 0);
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(DefrostHandlers, IdIsWrittenIntoTheTextOnlyAsFarAsTheTextWent) {
    for (const auto &[text, written] : std::vector<std::pair<std::string, std::string>>{
             {"------", "2"}, {"--", "2"}, {"-", ""}, {"", ""}}) {
        SCOPED_TRACE(text);
        std::array<char, 16> buffer{};
        buffer.fill('#');
        std::memcpy(buffer.data(), text.c_str(), text.size() + 1);
        const std::string rest(buffer.begin() + static_cast<std::ptrdiff_t>(text.size()),
                               buffer.end());
        KestDefrostReservation entry = kSpring;
        int error = 0;
        EXPECT_EQ(fakes::proxy::handlers().createDefrostReservations(&entry, buffer.data(), &error),
                  1);
        EXPECT_STREQ(buffer.data(), written.c_str());
        EXPECT_EQ(
            std::string(buffer.begin() + static_cast<std::ptrdiff_t>(text.size()), buffer.end()),
            rest);
        delDefrostReservation("2");
    }
}

TEST_F(DefrostHandlers, OldIdInTheEntryIsOverwritten) {
    KestDefrostReservation entry = kSpring;
    std::strcpy(entry.id, "somebody's own");
    EXPECT_EQ(FAKES_TEXT(createDefrostReservation(entry).entry.id), "2");
}

TEST_F(DefrostHandlers, EmptyFieldsAreStoredUnchecked) {
    EXPECT_EQ(createDefrostReservation(reservation("", "", "")).answer, 1);
    EXPECT_THAT(stored(), Contains(Texts{"2", "", "", "", ""}));
    EXPECT_EQ(delDefrostReservation("2"), 1); // before the worker meets it
}

TEST_F(DefrostHandlers, FieldsThatFillTheirMembersAreReadToTheirEnd) {
    const KestDefrostReservation entry = reservation("0000-01-01T10:00:00Z", "0000-12-31T00:00:00Z",
                                                     "01:00:00Z!", std::string(30, 'd'));
    EXPECT_EQ(createDefrostReservation(entry).answer, 1);
    EXPECT_THAT(stored(), Contains(Texts{"2", std::string(30, 'd'), "0000-01-01T10:00:00Z",
                                         "0000-12-31T00:00:00Z", "01:00:00Z!"}));
}

TEST_F(DefrostHandlers, FailedInsertIsLoggedAndAnsweredWithoutANotification) {
    const KestDefrostReservation quoted =
        reservation("0000-03-01T01:00:00", "0000-05-31T00:00:00", "02:00:00", "it's spring");
    const Created created = createDefrostReservation(quoted);
    EXPECT_EQ(created.answer, 0);
    EXPECT_EQ(created.error, 0);
    EXPECT_TRUE(fakes::log::has("ret: 1"));
    EXPECT_EQ(setDefrostReservation(quoted), 0);
    EXPECT_THAT(fakes::proxy::notifications(), IsEmpty());
    const Texts statements = fakes::storage::statements();
    EXPECT_EQ(std::count(statements.begin(), statements.end(), kDescending), 2); // ids, no loading
    EXPECT_THAT(storedIds(), ElementsAre("0", "1"));
}

TEST_F(DefrostHandlers, TwoCreationsAtOnceBothSucceedOrOneIsRefused) {
    std::array<Created, 2> created;
    auto file =
        std::make_unique<fakes::storage::Lock>(kFile, fakes::storage::Lock::Kind::Exclusive);
    const auto create = fakes::proxy::handlers().createDefrostReservations;
    std::vector<std::thread> requests;
    for (Created &one : created) {
        requests.emplace_back([&one, create] {
            char text[] = "--------";
            one.entry = kSpring;
            one.answer = create(&one.entry, text, &one.error);
        });
    }
    advance(0.3);
    file.reset();
    for (std::thread &request : requests) {
        request.join();
    }
    const int successes = created[0].answer + created[1].answer;
    EXPECT_GE(successes, 1);
    EXPECT_THAT(storedIds(), SizeIs(2U + static_cast<std::size_t>(successes)));
}

// ---- Reservations set ----

TEST_F(DefrostHandlers, SetAddsAReservationUnderTheNextFreeIdWhateverTheEntrysId) {
    for (const char *id : {"2", "3"}) {
        fakes::clearRecords();
        KestDefrostReservation entry = kSpring;
        std::strcpy(entry.id, "0");
        EXPECT_EQ(setDefrostReservation(entry), 1);
        const Texts all = fakes::texts({Kind::Log, Kind::Sql, Kind::Notification});
        EXPECT_THAT(
            Texts(all.begin(), all.begin() + 7),
            ElementsAre("KestRegisterSetDefrostReservationsFunc", kDescending,
                        std::string("SELECT * FROM defrost_usage_table WHERE id = '") + id + "'",
                        "constainer size : 0", insertOf(spring(id)), "Records created successfully",
                        kDescending));
        EXPECT_THAT(fakes::proxy::notifications(), IsEmpty());
        EXPECT_THAT(stored(), Contains(spring(id)));
        EXPECT_EQ(loadedIds().front(), id);
    }
    EXPECT_EQ(setDefrostReservation(kSpring), 0);
    EXPECT_THAT(storedIds(), ElementsAre("0", "1", "2", "3"));
}

TEST_F(DefrostHandlers, SetWithEmptyFieldsStoresThemEmpty) {
    EXPECT_EQ(setDefrostReservation(
                  reservation("0000-03-01T01:00:00", "0000-05-31T00:00:00", "02:00:00")),
              1);
    EXPECT_THAT(stored(),
                Contains(Texts{"2", "", "0000-03-01T01:00:00", "0000-05-31T00:00:00", "02:00:00"}));
}

// ---- Reservations deleted ----

TEST_F(DefrostHandlers, OnlyTwoAndThreeCanBeDeleted) {
    for (const char *id : {"0", "1", "4", "-2", "22", "100"}) {
        EXPECT_EQ(delDefrostReservation(id), 0) << id;
    }
    EXPECT_EQ(delDefrostReservation(nullptr), 0);
    EXPECT_THAT(fakes::storage::statements(), IsEmpty());
    EXPECT_THAT(fakes::proxy::notifications(), IsEmpty());
    EXPECT_THAT(storedIds(), ElementsAre("0", "1"));
}

TEST_F(DefrostHandlers, DeletionLooksDeletesAnnouncesAndLoadsInThisOrder) {
    createDefrostReservation(kSpring);
    fakes::clearRecords();
    EXPECT_EQ(delDefrostReservation("2"), 1);
    const Texts all = fakes::texts({Kind::Log, Kind::Sql, Kind::Notification});
    EXPECT_THAT(Texts(all.begin(), all.begin() + 6),
                ElementsAre("KestRegisterDelDefrostReservationsFunc",
                            "SELECT * FROM defrost_usage_table WHERE id = '2'",
                            "constainer size : 1", "DELETE from defrost_usage_table WHERE id = 2;",
                            "SendDefrostReservationsNotify(2, 2)", kDescending));
    EXPECT_THAT(storageCalls(),
                ElementsAre("open", "prepare", "exec", "close", "open", "prepare", "close"));
    EXPECT_THAT(storedIds(), ElementsAre("0", "1"));
    EXPECT_THAT(loadedIds(), ElementsAre("1", "0"));
}

TEST_F(DefrostHandlers, DeletionIsAnnouncedWithWhatWasDeleted) {
    createDefrostReservation(kSpring);
    fakes::clearRecords();
    EXPECT_EQ(delDefrostReservation("2"), 1);
    const auto sent = fakes::proxy::reservationNotifications();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].action, 2);
    ASSERT_THAT(sent[0].entries, SizeIs(1));
    EXPECT_EQ(membersOf(sent[0].entries[0]), spring("2"));
}

TEST_F(DefrostHandlers, DeletionOfWhatIsNotThereSucceedsAndIsAnnouncedWithTheNumberAlone) {
    for (const char *id : {"2", "3", "02", " 3", "+2"}) {
        SCOPED_TRACE(id);
        fakes::clearRecords();
        EXPECT_EQ(delDefrostReservation(id), 1);
        const std::string number = std::string(id).substr(std::strlen(id) - 1);
        const auto sent = fakes::proxy::reservationNotifications();
        ASSERT_THAT(sent, SizeIs(1));
        EXPECT_THAT(membersOf(sent[0].entries[0]), ElementsAre(number, "", "", "", ""));
        EXPECT_EQ(fakes::storage::attempts("SELECT * FROM defrost_usage_table WHERE id = '" +
                                           number + "'"),
                  1);
        EXPECT_EQ(fakes::storage::attempts(
                      "DELETE from defrost_usage_table WHERE id = " + std::string(id) + ";"),
                  1);
    }
}

TEST_F(DefrostHandlers, IdIsPastedIntoTheStatementAsReceived) {
    createDefrostReservation(kSpring);
    EXPECT_EQ(delDefrostReservation("2abc"), 0); // no statement that SQLite understands
    EXPECT_THAT(storedIds(), ElementsAre("0", "1", "2"));
    EXPECT_EQ(delDefrostReservation("2 OR id = 1"), 1);
    EXPECT_THAT(storedIds(), ElementsAre("0"));
}

TEST_F(DefrostHandlers, FailedDeletionIsAnsweredWithoutANotification) {
    createDefrostReservation(kSpring);
    fakes::clearRecords();
    fakes::storage::failStatements(fakes::storage::Trouble::Full);
    EXPECT_EQ(delDefrostReservation("2"), 0);
    EXPECT_EQ(fakes::storage::attempts("DELETE from defrost_usage_table WHERE id = 2;"), 10);
    EXPECT_THAT(fakes::proxy::notifications(), IsEmpty());
    EXPECT_THAT(fakes::storage::statements(), Not(Contains(kDescending)));
    fakes::storage::heal();
    EXPECT_THAT(storedIds(), ElementsAre("0", "1", "2"));
}

TEST_F(DefrostHandlers, IdThatIsNoNumberIsAnError) {
    const auto handler = fakes::proxy::handlers().delDefrostReservations;
    EXPECT_THROW(handler(nullptr, "two"), std::invalid_argument);
    EXPECT_THROW(handler(nullptr, ""), std::invalid_argument);
    EXPECT_THROW(handler(nullptr, "99999999999999999999"), std::out_of_range);
    EXPECT_EQ(delDefrostReservation("2"), 1); // the mutex is free
}

TEST_F(DefrostHandlers, AnnouncedTextsEndWithinTheirMembers) {
    const Texts brimful{"2", std::string(40, 'd'), "0000-01-01T10:00:00+++",
                        "0000-12-31T00:00:00+++", "01:00:00+++"};
    fakes::storage::execute(kFile, insertOf(brimful));
    EXPECT_EQ(delDefrostReservation("2"), 1);
    const auto sent = fakes::proxy::reservationNotifications();
    EXPECT_THAT(membersOf(sent[0].entries[0]),
                ElementsAre("2", std::string(29, 'd'), "0000-01-01T10:00:00", "0000-12-31T00:00:00",
                            "01:00:00+"));
}

} // namespace
