/*
 * What the remote side sends: sensible requests drawn around the edges of events and windows, and
 * absurd ones, which go through the very check that the Linux platform's proxy makes.
 *
 * Each function comes back when the request has been answered, in virtual time; from a thread of
 * the remote side's own.
 */
#ifndef CORVANE_LAB_REMOTE_H
#define CORVANE_LAB_REMOTE_H

#include "draws.h"

#include <cstdint>
#include <functional>
#include <string>

namespace corvane::lab {

/* What a query was answered: "level", "override", "block" or "enabled", and its number; or
 * "consumption", and its two figures as "12.34 and 56.00". */
using Told = std::function<void(const char *what, const std::string &value)>;

/*
 * utcSec: the service's clock, by which the remote side chooses its times. orderShare: of the
 * events that it thinks of, those that it orders; instead of others it wants defrost delay. Gives
 * the seconds until an edge of what was ordered, at which another request is worth sending; 0:
 * there is none.
 */
std::int64_t sendSensible(Draws &draws, std::int64_t utcSec, double orderShare, const Told &told);

/* Gives the refusal of the check, or nothing when it let the request through. */
std::string sendAbsurd(Draws &draws);

} // namespace corvane::lab

#endif
