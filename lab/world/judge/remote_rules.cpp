/*
 * In this order: keys and notifications, answers, override and level, what must hold while time
 * passes.
 */
#include "remote_rules.h"

#include "seen_texts.h"

namespace corvane::lab {

void RemoteRules::lifeBegins() {
    levelUnannounced_ = enableUnannounced_ = overrideUnannounced_ = false;
    isDisplayWatched_ = false;
    displayPresses_ = 0;
    micomOverride_ = -1;
    isLevelDoubtful_ = false;
    overrideWrongSinceMs_ = -1;
}

// ---- Keys and notifications ----

void RemoteRules::levelWritten(int value) {
    if (levelUnannounced_)
        scene_.broken("the remote side hears of every change of the level", "one was not notified");
    levelUnannounced_ = true;
    isLevelReset_ = isLevelReset_ && value == 0;
}

void RemoteRules::overrideWritten(int value) {
    if (overrideUnannounced_)
        scene_.broken("the remote side hears of every change of the override",
                      "one was not notified");
    overrideUnannounced_ = scene_.drSinceMs >= 0 && (value == 0 || value == 1);
}

void RemoteRules::enableWritten() {
    if (enableUnannounced_)
        scene_.broken("the remote side hears of every change of defrost delay",
                      "one was not notified");
    enableUnannounced_ = true;
}

void RemoteRules::levelNotified() {
    if (scene_.level.key != scene_.level.notified)
        differs("the level", scene_.level);
    levelUnannounced_ = false;
}

void RemoteRules::overrideNotified() {
    if (scene_.override.key != scene_.override.notified)
        differs("the override", scene_.override);
    overrideUnannounced_ = false;
}

void RemoteRules::enableNotified() {
    if ((scene_.enable.key.value_or(0) != 0) != (scene_.enable.notified == 1))
        differs("the defrost delay's", scene_.enable);
    enableUnannounced_ = false;
}

void RemoteRules::blockNotified() const {
    if (scene_.notifiedBlock != 0 && scene_.notifiedBlock != 1)
        scene_.broken("the block is 0 or 1", "it is " + optionalText(scene_.notifiedBlock));
}

void RemoteRules::differs(const std::string &what, const Scene::Reported &value) const {
    scene_.broken(what + " key equals what was last reported",
                  optionalText(value.notified) + " was notified while the key holds " +
                      optionalText(value.key));
}

// ---- Answers ----

/* Another request may be answered before what these tell arrives. */
void RemoteRules::answered(const std::string &command) {
    if (command == "GetDRLCOverride") {
        levelAtAnswer_ = scene_.level.notified;
        overrideAtAnswer_ = scene_.override.key;
    } else if (command == "GetDefrostBlock") {
        blockAtAnswer_ = scene_.notifiedBlock;
    } else if (command == "GetDelayDefrost") {
        enableAtAnswer_ = scene_.enable.key;
    }
}

void RemoteRules::told(const std::string &what, const std::string &value) const {
    const std::optional<int> &reported = what == "level"      ? levelAtAnswer_
                                         : what == "override" ? overrideAtAnswer_
                                         : what == "block"    ? blockAtAnswer_
                                                              : enableAtAnswer_;
    if (value != std::to_string(reported.value_or(0)))
        scene_.broken("a query is answered with what was last reported",
                      what + " " + value + ", reported was " + optionalText(reported));
}

// ---- Override and level ----

void RemoteRules::displayPressed(int value) {
    if (!isDisplayWatched_)
        return;
    displayOverride_ = value;
    ++displayPresses_;
    displayOverrideMs_ = scene_.nowMs();
}

void RemoteRules::overrideCommanded(int value, const std::string &command) {
    const std::string request = "ControlOverride(" + std::to_string(value) + ")";
    if (displayPresses_ > 0 && displayOverride_ == value)
        --displayPresses_;
    else if (std::string_view(scene_.handling) != request)
        scene_.broken("an override is commanded when display or remote side want it", command);
}

void RemoteRules::overrideEchoed(int value) {
    if (isDisplayWatched_)
        micomOverride_ = value;
}

void RemoteRules::levelEchoed(int value, bool isHeldUp) {
    const std::int64_t now = scene_.nowMs();
    // The follower of the one before may not have run yet: it waits a second, and longer while the
    // metering service holds up the task thread.
    isLevelDoubtful_ = now - levelEchoMs_ < 30'000 || isHeldUp;
    levelEcho_ = value;
    levelEchoMs_ = now;
    isLevelReset_ = false;
}

/* The end of an event sets the key, commands the normal level, and only then notifies. */
void RemoteRules::normalCommanded() {
    isLevelReset_ = isLevelReset_ || (levelUnannounced_ && scene_.level.key == 0);
}

// ---- What must hold while time passes ----

void RemoteRules::check() {
    if (levelUnannounced_ || enableUnannounced_ || overrideUnannounced_)
        scene_.broken("the remote side hears of every change",
                      levelUnannounced_    ? "the level's was not notified"
                      : enableUnannounced_ ? "defrost delay's was not notified"
                                           : "the override's was not notified");
    const auto &[levelKey, notifiedLevel] = scene_.level;
    const auto &[overrideKey, notifiedOverride] = scene_.override;
    if (scene_.drSinceMs >= 0 && notifiedLevel && notifiedLevel != levelKey)
        scene_.broken("the level key equals what was last reported", "it does not");
    if (scene_.drSinceMs >= 0 && overrideKey && (*overrideKey == 0 || *overrideKey == 1) &&
        notifiedOverride != overrideKey)
        scene_.broken("the override key equals what was last reported", "it does not");
    if (scene_.lasts(scene_.drSinceMs >= 0 && micomOverride_ != -1 && overrideKey != micomOverride_,
                     overrideWrongSinceMs_))
        scene_.broken("the override follows what the Micom reports",
                      "it is " + optionalText(overrideKey) + ", the Micom reports " +
                          std::to_string(micomOverride_));
    if (displayPresses_ > 0 && scene_.nowMs() - displayOverrideMs_ > kPassesMs)
        scene_.broken("an override switched on the display is commanded", "it was not");
}

void RemoteRules::calm(int micomLevel) const {
    // The appliance has kept its level over the end of an event and the begin of the next, and so
    // has nothing to echo.
    const bool isKept = isLevelReset_ && scene_.level.key == 0 && levelEcho_ == micomLevel;
    if (!isLevelDoubtful_ && !isKept && scene_.level.key.value_or(0) != micomLevel)
        scene_.broken("the level key follows the appliance's echo",
                      "it holds " + optionalText(scene_.level.key) + ", the appliance reports " +
                          std::to_string(micomLevel));
}

bool RemoteRules::isQuiet() const {
    return !levelUnannounced_ && !enableUnannounced_ && !overrideUnannounced_ &&
           displayPresses_ == 0 && scene_.nowMs() - levelEchoMs_ > kPassesMs &&
           overrideWrongSinceMs_ < 0;
}

} // namespace corvane::lab
