/*
 * access_rules.h - who may talk to the console, checked before any route
 * runs:
 *
 * - Host: the request must name the console by one of its own names: the
 *   loopback names and addresses, the address it listens on (every
 *   interface's address when it listens on all), and what --allow-host and
 *   --trusted-proxy add. Anything else is answered 421: a page of another
 *   site that points a name of its own at this machine (DNS rebinding)
 *   never reaches a route.
 * - Another site's requests: a browser marks them (Sec-Fetch-Site), and a
 *   change (any method but GET and HEAD) must come from the console's own
 *   origin or a trusted proxy's (Origin). Refused with 403, so no page can
 *   embed the streams or drive the controls.
 * - The token, when the console has one: in the cookie that /login sets,
 *   the X-Zelisp-Token header, an Authorization header of the Bearer scheme
 *   (in any case), or, for GET, a ?token= argument (players cannot send
 *   headers). Refused with 401.
 */
#ifndef ZELISP_CAM_CONSOLE_ACCESS_RULES_H
#define ZELISP_CAM_CONSOLE_ACCESS_RULES_H

#include <string>
#include <vector>

#include "http_exchange.h"

namespace zcam {

struct AccessPolicy {
    std::string token;                        // empty: none
    std::string listen_address;               // as listened on: "127.0.0.1", "0.0.0.0", "::", ...
    int port = 0;                             // the port listened on
    bool tls = false;                         // the console itself speaks TLS
    std::vector<std::string> allowed_hosts;   // --allow-host NAME or NAME:PORT
    std::vector<std::string> trusted_origins; // --trusted-proxy https://NAME[:PORT]
};

class AccessRules {
public:
    explicit AccessRules(AccessPolicy policy);

    struct Verdict {
        int status = 0; // 0: admitted
        std::string error;
    };
    Verdict check(const HttpRequest &request, bool needs_token) const;
    bool has_token() const { return !policy_.token.empty(); }
    bool token_matches(const std::string &given) const;
    // The Set-Cookie value that carries the token for the page.
    std::string token_cookie(const HttpRequest &request) const;
    // Names the Host header may carry, each with ":PORT" or alone.
    const std::vector<std::string> &hosts() const { return hosts_; }

private:
    bool host_allowed(const std::string &host) const;
    bool origin_allowed(const HttpRequest &request) const;
    std::string given_token(const HttpRequest &request, bool *given) const;

    AccessPolicy policy_;
    std::vector<std::string> hosts_; // lower case; "name:port", or "name" for any port
};

// Splits a Host value ("name:8080", "[::1]:8080", "name") into its name
// (lower case, without brackets) and port (0 when it has none). False for
// a malformed value.
bool split_host(const std::string &host, std::string *name, int *port);

} // namespace zcam

#endif
