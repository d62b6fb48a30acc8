/*
 * ntp_responder.cpp - the tests' loopback NTP server.
 */
#include "ntp_responder.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>

namespace rigtest {
namespace {

constexpr uint64_t kNtpEpochOffset = 2208988800u; // 1900 to 1970

// Now as a 64-bit NTP timestamp, big-endian into `out`.
void put_now(uint8_t *out)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    uint32_t seconds = htonl(uint32_t(uint64_t(now.tv_sec) + kNtpEpochOffset));
    uint32_t fraction = htonl(uint32_t((uint64_t(now.tv_nsec) << 32) / 1000000000u));
    std::memcpy(out, &seconds, 4);
    std::memcpy(out + 4, &fraction, 4);
}

int bound_socket(int *port)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    *port = ntohs(address.sin_port);
    return fd;
}

} // namespace

NtpResponder::NtpResponder()
{
    socket_ = bound_socket(&port_);
    if (pipe2(wake_, O_CLOEXEC) != 0)
        return;
    thread_ = std::thread([this] { serve(); });
}

NtpResponder::~NtpResponder()
{
    if (thread_.joinable()) {
        char byte = 0;
        (void)!write(wake_[1], &byte, 1);
        thread_.join();
    }
    for (int fd : {socket_, wake_[0], wake_[1]})
        if (fd >= 0)
            close(fd);
}

void NtpResponder::serve()
{
    for (;;) {
        pollfd fds[2] = {{socket_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 || (fds[1].revents & POLLIN))
            return;
        uint8_t packet[48];
        sockaddr_in client{};
        socklen_t length = sizeof client;
        ssize_t got = recvfrom(socket_, packet, sizeof packet, 0, reinterpret_cast<sockaddr *>(&client), &length);
        if (got < 48)
            continue;
        uint8_t reply[48] = {};
        put_now(reply + 32);                // receive time
        reply[0] = (4 << 3) | 4;           // version 4, server
        reply[1] = 1;                      // stratum 1: a reference clock
        reply[3] = 0xe9;                   // precision about a microsecond
        std::memcpy(reply + 12, "LOCL", 4); // reference id
        std::memcpy(reply + 16, reply + 32, 8);
        std::memcpy(reply + 24, packet + 40, 8); // origin: the client's transmit time
        put_now(reply + 40);                      // transmit time
        sendto(socket_, reply, sizeof reply, 0, reinterpret_cast<sockaddr *>(&client), length);
        ++answered_;
    }
}

int unused_udp_port()
{
    int port = 0;
    close(bound_socket(&port));
    return port;
}

} // namespace rigtest
