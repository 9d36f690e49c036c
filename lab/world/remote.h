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
#include <string>

namespace corvane::lab {

/* utcSec: the service's clock, by which the remote side chooses its times. */
void sendSensible(Draws &draws, std::int64_t utcSec);

/* Gives the refusal of the check, or nothing when it let the request through. */
std::string sendAbsurd(Draws &draws);

} // namespace corvane::lab

#endif
