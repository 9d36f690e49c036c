/*
 * EnergyDR: the demand-response controller.
 *
 * At most one event is stored. Its worker compares the event's interval with UTC once a second: at
 * the start it commands the level to the Micom, after the end it resets everything to normal. The
 * confirmed level follows the Micom's echo; only then does the remote side hear of it. What is
 * ordered remotely, reported by the Micom or decided by the worker meets in the accessors below,
 * each of which takes the mutex.
 */
#ifndef CORVANE_ENERGYDR_H
#define CORVANE_ENERGYDR_H

#include <string>

#include "EnergyDB.h"
#include "Object.h"

namespace Corvane {

class EnergyDR : public Object {
public:
    /** Loads the state and starts the worker. */
    EnergyDR();
    ~EnergyDR() override;

    /** Loads keys and event, registers the level echo and the remote handlers. May be repeated. */
    void _initialize() override;
    void _finalize() override;

    /** -1 while not known. */
    int getOverride();  // 0 off, 1 on, as last reported
    int getLevel();     // 0 normal, 1 to 4, as last confirmed by the appliance
    int getSendLevel(); // the level last commanded
    int getBlock();     // 1 while an event blocks defrost delay
    drRecord getSchedule();

    /** Persists the override and announces 0 or 1. Returns the announcement's result, or 0 without
     * one. */
    int setOverride(int value);

    /** Persists and announces the confirmed level. Sends the Micom nothing. */
    void setLevel(int value);

    /** Announces the block, also an unchanged one. */
    void setBlock(int value);

    /** Commands the level to the Micom; outside 0 to 4 nothing is sent. */
    void setSendLevel(int value);

    /** Ends or cancels the event: table emptied, level normal, block cleared, all announced. */
    void isActiveInit();

    /** Copies the stored event to where the worker looks. */
    void loadSchedule();

    /** Whether an event is stored, read from the table. */
    bool haveSchedule();

    /**
     * Stores an event. start: UTC time of day, or "null" or empty for now. Returns 0.
     * Throws as _strToDuration() does; nothing is stored then.
     */
    int _sendToDB(std::string eventLevel, std::string duration, std::string start);

    /** Takes the mutex itself; value as in the remote override request. */
    void _controlOverride(int value);

    /** Empties the table if it holds an event. */
    void _deleteStored();

    /** Caller holds the mutex. */
    void _sendToMicomInfoByLevel();

    /** Commands the override; only 0 and 1 are sent. No path of the service calls it. */
    void _sendToMicomInfoByOverride(int value);

private:
    void _run();
    void _pass();
    void _activate(int eventLevel, const std::string &endText);

    // Guarded by mutex.
    int override = -1;
    int level = -1;
    int sendLevel = -1;
    int block = -1;
    drRecord schedule;
};

} // namespace Corvane

#endif
