// See coap_packet.h.
#include "coap_packet.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace corvane::test {

namespace {

constexpr int kPatienceMs = 60'000;
constexpr int kRepeatMs = 200;

[[noreturn]] void giveUp(const char *what) {
    std::fprintf(stderr, "CoapClient: %s\n", what);
    std::abort();
}

// The four-bit form of an option's delta or length, and the bytes that follow it.
std::pair<int, std::string> optionNumber(std::size_t value) {
    if (value < 13)
        return {static_cast<int>(value), ""};
    if (value < 269)
        return {13, {static_cast<char>(value - 13)}};
    const std::size_t rest = value - 269;
    return {14, {static_cast<char>(rest >> 8), static_cast<char>(rest & 0xFF)}};
}

std::size_t readOptionNumber(int nibble, std::string_view bytes, std::size_t &position) {
    const auto next = [&] { return static_cast<std::uint8_t>(bytes.at(position++)); };
    if (nibble < 13)
        return static_cast<std::size_t>(nibble);
    if (nibble == 13)
        return next() + 13u;
    const std::size_t high = next();
    return (high << 8) + next() + 269u;
}

} // namespace

std::optional<unsigned> Packet::number(int which) const {
    for (const auto &[number, value] : options) {
        if (number != which)
            continue;
        unsigned result = 0;
        for (const char byte : value)
            result = result << 8 | static_cast<std::uint8_t>(byte);
        return result;
    }
    return std::nullopt;
}

std::string numberValue(unsigned value) {
    std::string bytes;
    for (; value != 0; value >>= 8)
        bytes.insert(bytes.begin(), static_cast<char>(value & 0xFF));
    return bytes;
}

std::string encodePacket(const Packet &packet) {
    std::string bytes;
    bytes += static_cast<char>(0x40 | static_cast<int>(packet.type) << 4 |
                               static_cast<int>(packet.token.size()));
    bytes += static_cast<char>(packet.code / 100 << 5 | packet.code % 100);
    bytes += static_cast<char>(packet.mid >> 8);
    bytes += static_cast<char>(packet.mid & 0xFF);
    bytes += packet.token;
    int last = 0;
    for (const auto &[number, value] : packet.options) {
        const auto [delta, deltaBytes] = optionNumber(static_cast<std::size_t>(number - last));
        const auto [length, lengthBytes] = optionNumber(value.size());
        bytes += static_cast<char>(delta << 4 | length);
        bytes += deltaBytes + lengthBytes + value;
        last = number;
    }
    if (!packet.payload.empty())
        bytes += '\xff' + packet.payload;
    return bytes;
}

Packet decodePacket(std::string_view bytes) {
    const auto byteAt = [&](std::size_t at) { return static_cast<std::uint8_t>(bytes.at(at)); };
    Packet packet;
    packet.type = static_cast<Type>(byteAt(0) >> 4 & 3);
    packet.code = (byteAt(1) >> 5) * 100 + (byteAt(1) & 0x1F);
    packet.mid = static_cast<std::uint16_t>(byteAt(2) << 8 | byteAt(3));
    packet.token = bytes.substr(4, byteAt(0) & 0x0Fu);
    std::size_t position = 4 + packet.token.size();
    std::size_t number = 0;
    while (position < bytes.size() && byteAt(position) != 0xFF) {
        const int head = byteAt(position++);
        number += readOptionNumber(head >> 4, bytes, position);
        const std::size_t length = readOptionNumber(head & 0x0F, bytes, position);
        packet.options.emplace_back(static_cast<int>(number), bytes.substr(position, length));
        position += length;
    }
    if (position < bytes.size())
        packet.payload = bytes.substr(position + 1);
    return packet;
}

CoapClient::CoapClient(std::uint16_t port) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        giveUp("cannot open a socket");
    const int receiveBuffer = 1 << 20; // for bursts of answers; the system may give less
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
}

CoapClient::~CoapClient() { close(fd_); }

Packet CoapClient::request(int method, std::string_view path, std::string payload) {
    Packet packet;
    packet.code = method;
    packet.mid = nextMid_++;
    packet.token = "t" + std::to_string(packet.mid);
    while (!path.empty()) {
        const std::size_t end = path.find('/');
        packet.options.emplace_back(option::kUriPath, path.substr(0, end));
        path = end == std::string_view::npos ? std::string_view{} : path.substr(end + 1);
    }
    packet.payload = std::move(payload);
    return packet;
}

void CoapClient::sendBytes(std::string_view bytes) {
    // A proxy that has closed meanwhile is for the test to notice, not for its client.
    if (::send(fd_, bytes.data(), bytes.size(), 0) < 0 && errno != ECONNREFUSED)
        giveUp("cannot send");
}

Packet CoapClient::receive() {
    if (!hasMore(kPatienceMs))
        giveUp("nothing came back");
    std::array<char, 4096> buffer{};
    const ssize_t size = recv(fd_, buffer.data(), buffer.size(), 0);
    if (size < 4)
        giveUp("what came back is no packet");
    return decodePacket({buffer.data(), static_cast<std::size_t>(size)});
}

Packet CoapClient::ask(const Packet &packet) {
    send(packet);
    return receive();
}

Packet CoapClient::askUntilAnswered(const Packet &packet) {
    for (int attempt = 0; attempt < kPatienceMs / kRepeatMs; ++attempt) {
        send(packet);
        if (hasMore(kRepeatMs))
            break;
    }
    return receive();
}

void CoapClient::acknowledge(const Packet &packet) {
    Packet acknowledgement;
    acknowledgement.type = Type::Acknowledgement;
    acknowledgement.mid = packet.mid;
    send(acknowledgement);
}

bool CoapClient::hasMore(int withinMs) const {
    pollfd wait{fd_, POLLIN, 0};
    return poll(&wait, 1, withinMs) == 1;
}

} // namespace corvane::test
