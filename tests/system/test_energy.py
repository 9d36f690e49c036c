"""Energy: from the Micom's figure to the metering service, the hourly rows and the answer."""

import contextlib
import os
import signal
import sqlite3
import time

from harness import Instance, Metering, SystemTest, wait_for, write_energy

TABLE = ("CREATE TABLE power_usage_table(date NUMERIC(12) NOT NULL,"
         " power_usage NUMERIC(14) NOT NULL, running_time NUMERIC(14) NOT NULL)")


def month_key(month, back):
    """The first hour of the month so many months before YYYYMM."""
    months = int(month[:4]) * 12 + int(month[4:]) - 1 - back
    return f"{months // 12}{months % 12 + 1:02}0100"


class Energy(SystemTest):
    """One service with a history and two without, beside a metering service."""

    @classmethod
    def setUpClass(cls):
        cls.corvane = Instance()
        month = time.strftime("%Y%m", time.gmtime())
        cls.history = [(int(month_key(month, 8)), 100, 0), (int(month_key(month, 1)), 900, 0),
                       (int(month_key(month, 1)) + 101, 1000, 0)]
        os.makedirs(cls.corvane.state + "/db")
        with contextlib.closing(sqlite3.connect(cls.corvane.state + "/db/usage.db")) as database:
            database.execute(TABLE)
            database.executemany("INSERT INTO power_usage_table VALUES (?, ?, ?)", cls.history)
            database.commit()
        cls.proxied = Instance("proxied", "127.0.0.1:5690", http_proxy="http://127.0.0.1:9",
                               all_proxy="http://127.0.0.1:9")
        cls.display = Instance("display", "127.0.0.1:5691")
        cls.display.write("memory/board/power", 4000)
        cls.all = (cls.corvane, cls.proxied, cls.display)
        for corvane in cls.all:
            corvane.connect_wifi()
            corvane.start_service()
        for corvane in cls.all:
            corvane.wait_until_launched()
            corvane.service.wait_for_output("REPORT] insert date")

    @classmethod
    def tearDownClass(cls):
        for corvane in cls.all:
            corvane.service.send(signal.SIGTERM)
        assert [corvane.service.wait() for corvane in cls.all] == [0, 0, 0]

    def rows(self):
        return self.corvane.rows("power_usage_table", "usage.db")

    def test_FigureIsPostedAddedToTheHourAndAnswered(self):
        with Metering() as metering:
            write_energy(self.corvane, 12345)
            self.assertEqual(metering.wait_for_requests(1), [
                ("POST", "/external/metering?cumulativepower=123.45&duration=60")])
        self.corvane.service.wait_for_output("Records updated successfully")
        date, counter, _ = self.rows()[-1]
        hours = [time.strftime("%Y%m%d%H", time.gmtime(time.time() - ago)) for ago in (0, 60)]
        self.assertIn(str(date), hours)
        self.assertEqual(counter, 1001, "the new hour goes on from 1000, and 12345 adds one")

        write_energy(self.corvane, 5)
        self.corvane.service.wait_for_output("REPORT] remainData : 2350")
        this_month = [row[1] for row in self.rows()
                      if row[0] >= int(time.strftime("%Y%m0100", time.gmtime()))]
        answer = self.corvane.get("GetEnergyConsumption")
        self.assertEqual(answer, {"result": 1, "monthly": "100.00",
                                  "cumulative": f"{this_month[-1] - this_month[0]}.23"})

    def test_RowsOlderThanSixMonthsAreGone(self):
        oldest, *younger = self.history
        wait_for("the oldest row is gone", lambda: oldest not in self.rows())
        self.assertTrue(set(younger) <= set(self.rows()))

    def test_FigureGoesToThisMachineWhateverProxyIsSet(self):
        with Metering() as metering:
            write_energy(self.proxied, 5)
            self.assertEqual(metering.wait_for_requests(1), [
                ("POST", "/external/metering?cumulativepower=0.05&duration=60")])

    def test_DisplaysEnergyIsAddedToTheFigure(self):
        with Metering() as metering:
            write_energy(self.display, 7)
            (method, path), = metering.wait_for_requests(1)
        figure = int(path.partition("=")[2].partition("&")[0].replace(".", ""))
        self.assertEqual(method, "POST")
        self.assertGreaterEqual(figure, 7 + 4000 // 3600)
