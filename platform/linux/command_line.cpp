/*
 * What the service answers to arguments.
 */
#include "command_line.h"

#include "status.h"
#include "text.h"

#include <cstdio>

namespace corvane::platform {
namespace {

constexpr const char *kHelp =
    R"(Usage: corvane

The energy service of a connected refrigerator. It takes no options, stays in the foreground and
ends with SIGTERM or Ctrl-C. The environment says where it works:

  CORVANE_STATE_DIR      what survives a restart of the machine: settings, databases
  CORVANE_RUNTIME_DIR    what does not: the settings shared with the micro-controller
  CORVANE_COAP_LISTEN    address of the CoAP server, 127.0.0.1:5683
  CORVANE_COAP_PSK_FILE  keys for DTLS, which any address but loopback needs
  TZ                     the zone of the defrost windows

Example, a second instance beside the system's own:

  CORVANE_STATE_DIR=/tmp/two/state CORVANE_RUNTIME_DIR=/tmp/two/run \
      CORVANE_COAP_LISTEN=127.0.0.1:5693 corvane

More: man 8 corvane. The client is corvanectl.
)";

} // namespace

std::optional<int> answerCommandLine(int argc, char **argv) {
    if (argc < 2)
        return std::nullopt;
    const std::string_view argument = argv[1];
    if (argc == 2 && (argument == "--help" || argument == "-h")) {
        (void)std::fputs(kHelp, stdout);
        return 0;
    }
    if (argc == 2 && argument == "--version") {
        (void)std::puts("corvane " CORVANE_VERSION);
        return 0;
    }
    (void)std::fprintf(
        stderr,
        "corvane: the argument %s is not known: the service takes none; see corvane --help\n",
        inQuotes(argument).c_str());
    return 2;
}

} // namespace corvane::platform
