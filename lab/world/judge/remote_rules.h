/*
 * The rules of what the remote side hears: every change of a key, in order, and the same in answer
 * to its queries; and of the override, which display, remote side and Micom share.
 */
#ifndef CORVANE_LAB_REMOTE_RULES_H
#define CORVANE_LAB_REMOTE_RULES_H

#include "scene.h"

#include <cstdint>
#include <optional>
#include <string>

namespace corvane::lab {

class RemoteRules {
public:
    explicit RemoteRules(const Scene &scene) : scene_(scene) {}

    void lifeBegins();

    // What is seen. A key's new value is not in the scene yet.
    void levelWritten(int value);
    void overrideWritten(int value);
    void enableWritten();
    // Of these it is.
    void levelNotified();
    void overrideNotified();
    void enableNotified();
    void blockNotified() const;
    void answered(const std::string &command);
    /* A query was answered so, right after its answer was seen. */
    void told(const std::string &what, const std::string &value) const;

    void displayIsWatched() { isDisplayWatched_ = true; }
    void displayPressed(int value);
    void overrideCommanded(int value, const std::string &command);
    void overrideEchoed(int value);
    /* isHeldUp: what follows the echo in the service may come late. */
    void levelEchoed(int value, bool isHeldUp);
    void normalCommanded(); // rightly

    // What must hold while time passes.
    void check();
    void calm(int micomLevel) const;

    bool isQuiet() const;

private:
    [[noreturn]] void differs(const std::string &what, const Scene::Reported &value) const;

    const Scene &scene_;
    bool levelUnannounced_ = false, enableUnannounced_ = false, overrideUnannounced_ = false;
    std::optional<int> levelAtAnswer_, overrideAtAnswer_, blockAtAnswer_, enableAtAnswer_;

    bool isDisplayWatched_ = false;
    int displayOverride_ = 0; // its key; each press is followed by the value that it then has
    int displayPresses_ = 0;  // not yet commanded
    std::int64_t displayOverrideMs_ = 0;
    int micomOverride_ = -1; // as its key was last written in this life

    int levelEcho_ = -1; // the last, of any life; -1: none yet
    std::int64_t levelEchoMs_ = kLongAgoMs;
    // Two echoes came within half a minute, or the task thread was held up.
    bool isLevelDoubtful_ = false;
    // The end or cancellation of an event set the key to 0, and nothing was echoed since.
    bool isLevelReset_ = false;

    // Since when the override is another than the Micom's; -1: it is not.
    std::int64_t overrideWrongSinceMs_ = -1;
};

} // namespace corvane::lab

#endif
