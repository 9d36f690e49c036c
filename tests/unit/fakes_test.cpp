#include "service_fixture.h"
class FakesTest : public fakes::ServiceTest {};
TEST_F(FakesTest, Smoke) {
    startServiceAndOpenGate();
    EXPECT_EQ(fakes::proxy::controlDrlc("2", "01:00:00", "00:10:00"), 1);
    advanceTo("2026-05-01T00:10:01");
    EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL2");
    echoLevel(2);
    advance(1.1);
    EXPECT_EQ(fakes::proxy::notifications().back(), "SendDRLCNotify(2)");
    advance(3600);
    EXPECT_EQ(lastMicomCommand(), "SET_SMARTGRID_LEVEL_NORMAL");
    EXPECT_EQ(stopService(), 0);
}
