/*
 * EnergyReport: the energy-report controller.
 *
 * Two sources are added up: the Micom's energy figure, published as four byte-sized keys, and the
 * display board's power, read once a second. Each time the Micom publishes, the figure is posted to
 * the metering service and its whole units are added to the hourly counter. The worker only samples
 * and watches for a new hour or month; every use of the table and of HTTP is a deferred task on the
 * manager's thread.
 *
 * 100 units of the summed figure make one unit of the posted figure, 10000 one unit of the stored
 * counter.
 */
#ifndef CORVANE_ENERGYREPORT_H
#define CORVANE_ENERGYREPORT_H

#include <string>

#include "EnergyDB.h"
#include "Object.h"

namespace Corvane {

class EnergyReport : public Object {
public:
    /** Creates the table and starts the worker. */
    EnergyReport();
    ~EnergyReport() override;

    void _initialize() override;
    void _finalize() override;

    /** The remainder, 0 to 9999, of energy not yet in the counter. */
    int getKestEnergy();
    void setKestEnergy(int value);

    /** The hour key of a UTC time, months earlier (negative: later). The day is taken over as it
     * is. */
    std::string _getDateByTm(const tm &t, int months);

    /** Makes sure that the hour has a row, and drops later hours when it is new. */
    void checkRecord(const std::string &key);

    /** One metering cycle: read, post, carry, store. On the task thread. */
    void _checkEnergy();

    /** What the counter grew by over the stored hours of [start, end). */
    int _diffValByDate(const std::string &start, const std::string &end);

private:
    void _run();
    void _sampleDisplay();
    void _watchHour(const tm &now);
    void _watchMonth(const tm &now);
    void _deleteBefore(const std::string &key);
    int _takeDisplayEnergy();
    void _post(int sum);
    void _store(const tm &time, int units);

    // Worker only.
    int lastMonth = -1; // 1 to 12
    int lastHour = -1;  // 0 to 23
    // Guarded by mutex.
    int kestEnergy = 0;
    int lcdEnergyRaw = 0; // sum of power readings, one a second; 3600 make one of the Micom's units
};

} // namespace Corvane

#endif
