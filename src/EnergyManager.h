/*
 * EnergyManager: owns everything and runs what must happen in sequence.
 *
 * A process-wide singleton behind static functions. It owns the start-up gate (Intro), the three
 * controllers, and one task thread that runs queued tasks one after another, at least 50 ms apart.
 * It also watches the settings keys that belong to no controller and declares the remote commands.
 *
 * The controllers are built by tasks and deleted by FinalThread(). A getter's pointer is therefore
 * only as good as the Pin that its caller takes on it:
 *
 *     Pin<EnergyDR> dr(EnergyManager::GetEnergyDR());
 */
#ifndef CORVANE_ENERGYMANAGER_H
#define CORVANE_ENERGYMANAGER_H

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include <wifi.h>

namespace Corvane {

class DefrostDelay;
class EnergyDR;
class EnergyReport;

/**
 * The start-up gate: holds the controllers back until Wi-Fi is connected and the clock has been
 * set.
 *
 * A chain of tasks on the manager's queue; which step is queued is all the state there is. A step
 * that fails queues itself again, a second later, for as long as it takes.
 */
class Intro {
public:
    Intro();
    Intro(const Intro &) = delete;
    Intro &operator=(const Intro &) = delete;
    virtual ~Intro();

    /** Deletes the controllers that exist and starts the gate again. Any thread. */
    void refresh();

    void _wifiCheck();
    void _launchCheck();

    /** True from December 2015 (UTC) on: before that, nobody has set the clock. */
    bool _dateCheck();

    /** Switches the radio on first. Nothing in the gate's chain enters here. */
    void _wifiActivate();

private:
    void _queue(void (Intro::*step)());
    static void _activated(wifi_error_e result, void *userData);
};

class EnergyManager {
public:
    /** Kinds of a declared remote command. */
    enum KestCmd : int {
        KEST_CMD_NOTIFY = 0,  // sent by the service
        KEST_CMD_REQUEST = 1, // answered by the service
    };

    EnergyManager();
    EnergyManager(const EnergyManager &) = delete;
    EnergyManager &operator=(const EnergyManager &) = delete;
    virtual ~EnergyManager();

    /** Registers keys, declares the commands, starts the gate. From the create callback. */
    static void Initialize();

    /** Deletes the manager and all it owns; no thread is left. From the terminate callback. */
    static void Finalize();

    /** Queues the construction of each missing controller, one second apart. */
    static void LaunchApp();

    /** Queues a copy of the task and returns; it runs on the task thread, or never if the end is
     * near. */
    static void AsyncCall(const std::function<void()> &task);

    /** Deletes the controllers that exist. On the task thread or at the end. */
    static void FinalThread();

    /** The controllers; null before their construction and after FinalThread(). Any thread; see
     * Pin. */
    static EnergyReport *GetEnergyReport();
    static EnergyDR *GetEnergyDR();
    static DefrostDelay *GetDefrostDelay();

    /** Declares one remote command to the proxy; a kind other than the two is ignored. */
    static void KestAddProxy(const std::string &name, KestCmd kind);

private:
    static EnergyManager *_instance();
    static void _declareCommands();
    void _runTasks();
    void _queueTask(const std::function<void()> &task);
    void _deleteControllers();

    static std::mutex instanceMutex;
    static EnergyManager *Instance; // guarded by instanceMutex

    Intro *intro = nullptr; // owned; the lifecycle thread only
    // Owned. Written by tasks, and at the end by the lifecycle thread.
    std::atomic<EnergyReport *> energyReport{nullptr};
    std::atomic<EnergyDR *> energyDR{nullptr};
    std::atomic<DefrostDelay *> defrostDelay{nullptr};
    std::thread *thread = nullptr;              // owned; the lifecycle thread only
    std::mutex mutex;                           // guards tasks
    std::list<std::function<void()> *> tasks{}; // owned until run
    std::atomic<bool> stop{false};
};

} // namespace Corvane

#endif
