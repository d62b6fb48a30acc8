/*
 * ntp_responder.h - an NTP server on loopback for the tests: it answers
 * every client request (NTPv4, mode 4, stratum 1) with this machine's
 * real-time clock, from a thread of its own, until it is destroyed. Enough
 * for GStreamer's NTP client to sync on, so that a test can run a rig on a
 * network clock without a network.
 */
#ifndef ZELISP_TESTS_RIG_NTP_RESPONDER_H
#define ZELISP_TESTS_RIG_NTP_RESPONDER_H

#include <atomic>
#include <thread>

namespace rigtest {

class NtpResponder {
public:
    NtpResponder();
    ~NtpResponder();
    NtpResponder(const NtpResponder &) = delete;
    NtpResponder &operator=(const NtpResponder &) = delete;

    int port() const { return port_; }
    int answered() const { return answered_; }

private:
    void serve();

    int socket_ = -1;
    int wake_[2] = {-1, -1};
    int port_ = 0;
    std::atomic<int> answered_{0};
    std::thread thread_;
};

// A UDP port on loopback that nothing listens on (bound, read, released).
int unused_udp_port();

} // namespace rigtest

#endif
