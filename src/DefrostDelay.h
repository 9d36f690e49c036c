/*
 * DefrostDelay: the defrost-delay controller.
 *
 * "enable" is the wish, of a user or the remote side, that defrost be delayed; "active" is what the
 * appliance is told now. A reservation names a season and a daily window, in local time; once a
 * second the worker takes the first reservation (highest id first) whose season holds today and,
 * while enabled, sets active to 1 inside its window and to 0 outside.
 */
#ifndef CORVANE_DEFROSTDELAY_H
#define CORVANE_DEFROSTDELAY_H

#include <memory>
#include <string>
#include <vector>

#include "EnergyDB.h"
#include "Object.h"

namespace Corvane {

class DefrostDelay : public Object {
public:
    /** Loads the state and starts the worker. */
    DefrostDelay();
    ~DefrostDelay() override;

    /** Loads keys and reservations, puts the two defaults back, registers the handlers. May be
     * repeated. */
    void _initialize() override;
    void _finalize() override;

    /** -1 while not known. */
    int getEnable();
    int getActive();

    /** Persists and announces the wish. */
    void setEnable(int value);

    /** Persists the state and tells the Micom. */
    void setActive(int value);

    /** Switches both off; says nothing about what is off already. */
    void isActiveDisable();

    /** Drops the loaded reservations. */
    void deleteSchedules();

    /** Loads the reservations from the table. */
    void initSchedules();

    /** The reservations as loaded, highest id first. */
    std::vector<scheduleRecord> getSchedules();

    /** The lowest id of 0 to 3 that is free in the table; -1 when none is, or when the table is
     * empty. */
    int checkEmptyId();

    /**
     * Whether today's local date is in the season from startTime's to endTime's day; period is the
     * length of the last day's window. Throws std::out_of_range or std::invalid_argument on
     * malformed texts.
     */
    bool _checkSchedule(const std::string &startTime, const std::string &endTime,
                        const std::string &period);

    /** Caller holds the mutex. */
    void _sendToMicomInfoByStatus();

    /** The table's part of the handlers; each takes the mutex. */
    int _insertReservation(const scheduleRecord &record);
    int _selectReservation(scheduleRecord &record);
    int _selectReservations(std::vector<scheduleRecord> &records);
    int _deleteReservation(scheduleRecord &record, const std::string &id);

private:
    void _run();
    void _logMatch(const scheduleRecord &reservation, const tm &now);
    void _updateActive(const scheduleRecord &reservation, TimePoint now, const tm &local,
                       bool periodicLog);
    void _resendEachTenMinutes(int minute);

    // Guarded by mutex.
    int enable = -1;
    int active = -1;
    std::vector<std::unique_ptr<scheduleRecord>> schedules;
};

} // namespace Corvane

#endif
