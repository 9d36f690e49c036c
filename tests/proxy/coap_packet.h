// A CoAP client of the tests' own on a plain UDP socket. It sends exactly the bytes that a test
// wants, also wrong ones, and shows exactly those that come back: no repetition, no hidden
// acknowledgement.
#ifndef CORVANE_TESTS_PROXY_COAP_PACKET_H
#define CORVANE_TESTS_PROXY_COAP_PACKET_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvane::test {

enum class Type { Confirmable, NonConfirmable, Acknowledgement, Reset };

constexpr int kGet = 1;
constexpr int kPost = 2;
constexpr int kPut = 3;
constexpr int kDelete = 4;

namespace option {
constexpr int kObserve = 6;
constexpr int kUriPath = 11;
constexpr int kContentFormat = 12;
constexpr int kMaxAge = 14;
constexpr int kUriQuery = 15;
constexpr int kAccept = 17;
constexpr int kBlock1 = 27;
} // namespace option

struct Packet {
    Type type = Type::Confirmable;
    int code = 0; // as in 4.04 = 404; requests are 1 to 4
    std::uint16_t mid = 0;
    std::string token;
    std::vector<std::pair<int, std::string>> options; // ascending
    std::string payload;

    // The option's value as a number; nothing when it is absent.
    std::optional<unsigned> number(int which) const;
};

// The value of a number option in its shortest form.
std::string numberValue(unsigned value);

std::string encodePacket(const Packet &packet);
Packet decodePacket(std::string_view bytes);

class CoapClient {
public:
    explicit CoapClient(std::uint16_t port);
    ~CoapClient();
    CoapClient(const CoapClient &) = delete;
    CoapClient &operator=(const CoapClient &) = delete;

    // A request with a fresh message id and token. The path has the form a/b/c.
    Packet request(int method, std::string_view path, std::string payload = {});

    void sendBytes(std::string_view bytes);
    void send(const Packet &packet) { sendBytes(encodePacket(packet)); }

    // The next datagram, whatever it is. Ends the test program with a message when none comes
    // within a minute.
    Packet receive();

    // Sends the request and answers the next datagram.
    Packet ask(const Packet &packet);

    // The same where the proxy may have no room for the datagram: repeats it until something comes.
    Packet askUntilAnswered(const Packet &packet);

    // Acknowledges a confirmable packet.
    void acknowledge(const Packet &packet);

    // Whether a datagram waits to be received, or comes within that time.
    bool hasMore(int withinMs = 0) const;

private:
    int fd_;
    std::uint16_t nextMid_ = 1;
};

} // namespace corvane::test

#endif
