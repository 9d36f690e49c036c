// How the C handlers are called and how their answers are read back.
#include "proxy/handlers.h"

#include <cstring>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

using namespace corvane::platform;

namespace {

// What the handlers of this file saw last.
struct Seen {
    KestDrlcInfo drlc;
    KestDefrostReservation reservation;
    std::string id;
    std::string text;
    int value;
    bool hasContext;
};
Seen seen;

class HandlersTest : public testing::Test {
protected:
    HandlersTest() { seen = {}; }

    // Calls the command's handler for a POST, and answers code and body in one line.
    std::string call(CommandId id, Format format = Format::Json) {
        request.id = id;
        request.successCode = 204;
        request.answerFormat = format;
        const Response response = callHandler(handlers, request);
        EXPECT_EQ(response.format, format);
        return std::to_string(response.code) + ' ' + response.body;
    }

    Handlers handlers;
    Request request;
};

template <std::size_t size>
void fillWith(char (&member)[size], char character) {
    std::memset(member, character, size);
}

} // namespace

TEST_F(HandlersTest, AreThereOnceInstalled) {
    for (const Command &command : allCommands())
        EXPECT_FALSE(isInstalled(handlers, command.id));
    handlers.getDrlcOverride = [](int *, int *) { return 1; };
    handlers.controlOverride = [](int) { return 1; };
    handlers.controlDrlc = [](KestDrlcInfo *) { return 1; };
    handlers.getDefrostReservations = [](KestDefrostReservation *, int *) { return 1; };
    handlers.createDefrostReservations = [](KestDefrostReservation *, char *, int *) { return 1; };
    handlers.setDefrostReservations = [](KestDefrostReservation *) { return 1; };
    handlers.delDefrostReservations = [](void *, const char *) { return 1; };
    handlers.getDelayDefrost = [](int *) { return 1; };
    handlers.setDelayDefrost = [](int) { return 1; };
    handlers.getDefrostBlock = [](int *) { return 1; };
    handlers.getEnergyConsumption = [](char *, char *) { return 1; };
    for (const Command &command : allCommands())
        EXPECT_EQ(isInstalled(handlers, command.id), command.kind == CommandKind::Request);
}

TEST_F(HandlersTest, LevelAndOverrideComeBackAlsoWhenTheyAreNotKnownYet) {
    handlers.getDrlcOverride = [](int *level, int *overrideState) {
        *level = 3;
        *overrideState = -1;
        return 1;
    };
    EXPECT_EQ(call(CommandId::GetDRLCOverride), R"(204 {"result":1,"level":3,"override":-1})");
}

TEST_F(HandlersTest, ReadAnswersWithContent) {
    handlers.getDefrostBlock = [](int *block) {
        *block = 1;
        return 1;
    };
    request.id = CommandId::GetDefrostBlock;
    request.successCode = 205;
    EXPECT_EQ(callHandler(handlers, request).code, 205);
}

TEST_F(HandlersTest, RefusalIsAConflictWithoutValues) {
    handlers.getDrlcOverride = [](int *level, int *) {
        *level = 3;
        return 0;
    };
    handlers.getDelayDefrost = [](int *) { return 0; };
    handlers.setDelayDefrost = [](int) { return 0; };
    EXPECT_EQ(call(CommandId::GetDRLCOverride), R"(409 {"result":0})");
    EXPECT_EQ(call(CommandId::GetDelayDefrost), R"(409 {"result":0})");
    EXPECT_EQ(call(CommandId::SetDelayDefrost), R"(409 {"result":0})");
}

TEST_F(HandlersTest, ValuesArePassedOn) {
    handlers.controlOverride = [](int value) {
        seen.value = value;
        return 1;
    };
    handlers.controlDrlc = [](KestDrlcInfo *info) {
        seen.drlc = *info;
        return 1;
    };
    handlers.delDefrostReservations = [](void *context, const char *id) {
        seen.hasContext = context != nullptr;
        seen.id = id;
        return 1;
    };
    request.value = 1;
    request.reservationId = "3";
    std::strcpy(request.drlc.drlcLevel, "2");
    EXPECT_EQ(call(CommandId::ControlOverride), R"(204 {"result":1})");
    EXPECT_EQ(call(CommandId::ControlDRLC), R"(204 {"result":1})");
    EXPECT_EQ(call(CommandId::DelDefrostReservations), R"(204 {"result":1})");
    EXPECT_EQ(seen.value, 1);
    EXPECT_STREQ(seen.drlc.drlcLevel, "2");
    EXPECT_EQ(seen.id, "3");
    EXPECT_FALSE(seen.hasContext);
}

TEST_F(HandlersTest, NewReservationsTextHoldsRoomForTheId) {
    handlers.createDefrostReservations = [](KestDefrostReservation *entry, char *text, int *error) {
        seen.text = text;
        EXPECT_EQ(*error, 0);
        std::strcpy(entry->id, "2");
        return 1;
    };
    EXPECT_EQ(call(CommandId::CreateDefrostReservations), R"(204 {"result":1,"id":"2"})");
    EXPECT_GE(seen.text.size(), 2u);
    EXPECT_LT(seen.text.size(), sizeof(KestDefrostReservation::id));
}

TEST_F(HandlersTest, RefusedReservationCarriesItsError) {
    handlers.createDefrostReservations = [](KestDefrostReservation *, char *, int *error) {
        *error = 507;
        return 0;
    };
    EXPECT_EQ(call(CommandId::CreateDefrostReservations), R"(409 {"result":0,"error":507})");
    handlers.createDefrostReservations = [](KestDefrostReservation *, char *, int *) { return 0; };
    EXPECT_EQ(call(CommandId::CreateDefrostReservations), R"(409 {"result":0})");
}

TEST_F(HandlersTest, ReservationsComeBackInTheirOrder) {
    handlers.getDefrostReservations = [](KestDefrostReservation *entries, int *count) {
        std::strcpy(entries[0].id, "0");
        std::strcpy(entries[0].description, "Summer Season");
        std::strcpy(entries[0].startTime, "0000-06-01T22:00:00");
        std::strcpy(entries[0].endTime, "0000-09-30T00:00:00");
        std::strcpy(entries[0].period, "04:00:00");
        std::strcpy(entries[1].id, "3");
        *count = 2;
        return 1;
    };
    EXPECT_EQ(
        call(CommandId::GetDefrostReservations),
        R"(204 {"result":1,"reservations":[{"id":"0","description":"Summer Season",)"
        R"("startTime":"0000-06-01T22:00:00","endTime":"0000-09-30T00:00:00","period":"04:00:00"},)"
        R"({"id":"3","description":"","startTime":"","endTime":"","period":""}]})");
}

TEST_F(HandlersTest, TextsThatFillTheirFieldsAreReadNoFurther) {
    handlers.getDefrostReservations = [](KestDefrostReservation *entries, int *count) {
        fillWith(entries[3].id, 'i');
        fillWith(entries[3].description, 'd');
        fillWith(entries[3].startTime, 's');
        fillWith(entries[3].endTime, 'e');
        fillWith(entries[3].period, 'p');
        *count = 1000;
        return 1;
    };
    const std::string body = call(CommandId::GetDefrostReservations);
    EXPECT_NE(body.find(R"({"id":")" + std::string(50, 'i') + R"(","description":")" +
                        std::string(30, 'd') + R"(","startTime":")" + std::string(20, 's') +
                        R"(","endTime":")" + std::string(20, 'e') + R"(","period":")" +
                        std::string(10, 'p') + R"("}]})"),
              std::string::npos)
        << body;
}

TEST_F(HandlersTest, NegativeCountIsNone) {
    handlers.getDefrostReservations = [](KestDefrostReservation *, int *count) {
        *count = -7;
        return 1;
    };
    EXPECT_EQ(call(CommandId::GetDefrostReservations), R"(204 {"result":1,"reservations":[]})");
}

TEST_F(HandlersTest, ConsumptionIsReadWithinItsBuffers) {
    handlers.getEnergyConsumption = [](char *cumulative, char *monthly) {
        std::strcpy(cumulative, "220.45");
        std::memset(monthly, '9', 512);
        return 1;
    };
    EXPECT_EQ(call(CommandId::GetEnergyConsumption),
              R"(204 {"result":1,"cumulative":"220.45","monthly":")" + std::string(512, '9') +
                  R"("})");
}

TEST_F(HandlersTest, TextsThatAreNoTextAreCleaned) {
    handlers.getEnergyConsumption = [](char *cumulative, char *monthly) {
        std::strcpy(cumulative, "1\xFF\n2");
        std::strcpy(monthly, "\"");
        return 1;
    };
    EXPECT_EQ(call(CommandId::GetEnergyConsumption),
              R"(204 {"result":1,"cumulative":"1??2","monthly":"\""})");
}

TEST_F(HandlersTest, AnswersCanBeCbor) {
    handlers.getDelayDefrost = [](int *enabled) {
        *enabled = 1;
        return 1;
    };
    EXPECT_EQ(call(CommandId::GetDelayDefrost, Format::Cbor), "204 \xA2\x66result\x01\x67"
                                                              "enabled\x01");
}

TEST_F(HandlersTest, ExceptionPassesThrough) {
    handlers.controlOverride = [](int) -> int { throw std::runtime_error("no"); };
    EXPECT_THROW(call(CommandId::ControlOverride), std::runtime_error);
}
