/*
 * When time may be told, and how a broken rule is told.
 */
#include "scene.h"

#include "seen_texts.h"

#include <cstdlib>

namespace corvane::lab {

bool Scene::isHandling(std::string_view start) const { return startsWith(handling, start); }

bool Scene::mayBeHeldUp() const {
    return nowMs() - storeFailedMs <= kPassesMs || eyes->isStoreTroubled();
}

bool Scene::lasts(bool condition, std::int64_t &sinceMs) const {
    const bool mayTellTime = nowMs() - clockTouchedMs > kPassesMs && !mayBeHeldUp();
    if (!condition || !mayTellTime || !handling.empty()) {
        sinceMs = -1;
        return false;
    }
    if (sinceMs < 0)
        sinceMs = nowMs();
    return nowMs() - sinceMs > kPassesMs;
}

std::optional<std::int64_t> Scene::judgedMinuteMs() const {
    const std::int64_t ofMinute = utcMs() % kMinuteMs;
    const bool isJudged =
        ofMinute > kPassesMs && ofMinute < 2 * kPassesMs && nowMs() - clockTouchedMs > kMinuteMs &&
        nowMs() - storeFailedMs > kMinuteMs && !eyes->isStoreTroubled() && handling.empty();
    return isJudged ? std::optional(ofMinute) : std::nullopt;
}

void Scene::checkTaskPause(std::int64_t beforeMs) const {
    if (beforeMs >= 0 && nowMs() - beforeMs < kTaskMs)
        broken("consecutive tasks are at least 50 ms apart",
               "two that sleep a second first were seen within " +
                   std::to_string(nowMs() - beforeMs) + " ms");
}

void Scene::broken(const std::string &rule, const std::string &what) const {
    eyes->broken(rule, what);
    std::abort(); // the compiler does not see that a virtual function never returns
}

} // namespace corvane::lab
