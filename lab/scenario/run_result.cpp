/*
 * A result as bytes: one list of its members for both directions.
 */
#include "run_result.h"

#include "bytes.h"

namespace corvane::lab {
namespace {

constexpr std::uint64_t kMark = 0x31746c7573657221U;

void transfer(auto &bytes, auto &result) {
    bytes.value(result.seed);
    bytes.value(result.beginMs);
    bytes.list(result.minutes);
    bytes.list(result.fates);
    bytes.value(result.notesLeftOut);
    bytes.value(result.commands);
    bytes.value(result.requests);
    bytes.value(result.refusals);
    bytes.value(result.posts);
    bytes.value(result.postedCounts);
    bytes.value(result.lives);
    bytes.value(result.judgedSteps);
    bytes.value(result.realSec);
    bytes.value(result.isService);
}

void transferNote(auto &bytes, auto &note) {
    bytes.value(note.atMs);
    bytes.value(note.kind);
    bytes.value(note.isRefusal);
    bytes.text(note.text);
}

} // namespace

std::string toBytes(const RunResult &result) {
    BytesOut bytes;
    bytes.value(kMark);
    transfer(bytes, result);
    bytes.value(result.notes.size());
    for (const Note &note : result.notes)
        transferNote(bytes, note);
    return bytes.take();
}

RunResult resultFromBytes(const std::string &text) {
    BytesIn bytes(text);
    std::uint64_t mark = 0;
    bytes.value(mark);
    if (mark != kMark)
        throw std::runtime_error("these are not the bytes of a run");
    RunResult result;
    transfer(bytes, result);
    std::size_t notes = 0;
    bytes.value(notes);
    for (; notes > 0; --notes)
        transferNote(bytes, result.notes.emplace_back());
    if (!bytes.isAtEnd())
        throw std::runtime_error("the bytes of a run go on after its end");
    return result;
}

} // namespace corvane::lab
