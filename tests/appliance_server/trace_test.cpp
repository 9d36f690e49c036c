/* The trace's forms. */
#include "trace.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace corvane::appliance {
namespace {

TEST(Csv, FieldsAreQuotedAndNoFormulas) {
    EXPECT_EQ(csvField("plain text"), "plain text");
    EXPECT_EQ(csvField("a,b"), "\"a,b\"");
    EXPECT_EQ(csvField("say \"hi\"\n"), "\"say \"\"hi\"\"\n\"");
    for (const char *formula : {"=1+1", "+1", "-1", "@sum", "\tx"})
        EXPECT_EQ(csvField(formula).front(), '\'') << formula;
}

TEST(Csv, TraceHasALineOfNames) {
    EXPECT_EQ(traceCsvHead(), "id,at,utc,source,direction,text,value\r\n");
    EXPECT_EQ(traceCsv({7, 1'785'500'000'250, "micom", "out", "applied level 3", 3}),
              "7,1785500000.25,2026-07-31T12:13:20.250Z,micom,out,applied level 3,3.0\r\n");
}

TEST(TraceJson, TellsAnUnknownValueAsNull) {
    const auto json = traceJson({1, 1500, "page", "in", "x", std::nullopt});
    EXPECT_TRUE(json["value"].is_null());
    EXPECT_EQ(json["at"], 1.5);
}

} // namespace
} // namespace corvane::appliance
