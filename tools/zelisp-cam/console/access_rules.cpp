// access_rules.cpp - the Host allow-list, the cross-site rules and the token.
#include "access_rules.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <algorithm>
#include <cctype>

#include "console_token.h"

namespace zcam {

namespace {

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::string with_port(const std::string &name, int port)
{
    std::string shown = name.find(':') != std::string::npos ? "[" + name + "]" : name;
    return port > 0 ? shown + ":" + std::to_string(port) : shown;
}

// Every address of this machine's interfaces, for a console that listens on all.
std::vector<std::string> interface_addresses(bool with_ipv6)
{
    std::vector<std::string> addresses;
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return addresses;
    for (ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr)
            continue;
        char text[INET6_ADDRSTRLEN] = "";
        if (entry->ifa_addr->sa_family == AF_INET)
            inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(entry->ifa_addr)->sin_addr, text, sizeof text);
        else if (with_ipv6 && entry->ifa_addr->sa_family == AF_INET6)
            inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6 *>(entry->ifa_addr)->sin6_addr, text, sizeof text);
        if (text[0] != '\0')
            addresses.push_back(text);
    }
    freeifaddrs(list);
    return addresses;
}

// The value of one cookie of a Cookie header; "" when it is not there.
std::string cookie_value(const std::string &cookies, const std::string &name)
{
    size_t pos = 0;
    while (pos < cookies.size()) {
        size_t end = cookies.find(';', pos);
        if (end == std::string::npos)
            end = cookies.size();
        std::string item = cookies.substr(pos, end - pos);
        item.erase(0, item.find_first_not_of(' '));
        if (item.compare(0, name.size() + 1, name + "=") == 0)
            return item.substr(name.size() + 1);
        pos = end + 1;
    }
    return "";
}

bool changes_state(const std::string &method)
{
    return method != "GET" && method != "HEAD";
}

} // namespace

bool split_host(const std::string &host, std::string *name, int *port)
{
    std::string rest;
    if (!host.empty() && host.front() == '[') {
        size_t close = host.find(']');
        if (close == std::string::npos)
            return false;
        *name = host.substr(1, close - 1);
        rest = host.substr(close + 1);
    } else {
        size_t colon = host.find(':');
        if (colon != host.rfind(':'))
            return false; // an IPv6 address must be in brackets
        *name = host.substr(0, colon);
        rest = colon == std::string::npos ? "" : host.substr(colon);
    }
    *port = 0;
    if (!rest.empty()) {
        std::string digits = rest.substr(1);
        if (rest[0] != ':' || digits.empty() || digits.size() > 5 ||
            digits.find_first_not_of("0123456789") != std::string::npos)
            return false;
        *port = std::stoi(digits);
    }
    *name = lower(*name);
    return !name->empty();
}

AccessRules::AccessRules(AccessPolicy policy) : policy_(std::move(policy))
{
    std::vector<std::string> own = {"localhost", "127.0.0.1", "::1"};
    const std::string &address = policy_.listen_address;
    if (address == "0.0.0.0" || address == "::") {
        for (const std::string &found : interface_addresses(address == "::"))
            own.push_back(found);
    } else {
        own.push_back(lower(address));
    }
    for (const std::string &name : own)
        hosts_.push_back(with_port(name, policy_.port));
    // A page on the default port leaves the port out of its Host header.
    if (policy_.port == (policy_.tls ? 443 : 80))
        for (const std::string &name : own)
            hosts_.push_back(with_port(name, 0));
    for (const std::string &given : policy_.allowed_hosts)
        hosts_.push_back(lower(given));
    for (const std::string &origin : policy_.trusted_origins)
        hosts_.push_back(lower(origin.substr(origin.find("://") + 3)));
}

bool AccessRules::host_allowed(const std::string &host) const
{
    std::string name;
    int port = 0;
    if (!split_host(host, &name, &port))
        return false;
    std::string exact = with_port(name, port);
    for (const std::string &allowed : hosts_) {
        if (allowed == exact)
            return true;
        // A name given without a port stands for every port.
        std::string allowed_name;
        int allowed_port = 0;
        if (split_host(allowed, &allowed_name, &allowed_port) && allowed_port == 0 && allowed_name == name &&
            std::find(policy_.allowed_hosts.begin(), policy_.allowed_hosts.end(), allowed) !=
                policy_.allowed_hosts.end())
            return true;
    }
    return false;
}

bool AccessRules::origin_allowed(const HttpRequest &request) const
{
    std::string origin = lower(request.header("Origin"));
    if (origin.empty())
        return true; // not a browser: the Host rule and the token hold for it
    for (const std::string &trusted : policy_.trusted_origins)
        if (origin == lower(trusted))
            return true;
    return origin == std::string(request.tls ? "https://" : "http://") + lower(request.header("Host"));
}

std::string AccessRules::given_token(const HttpRequest &request, bool *given) const
{
    std::vector<std::string> offered;
    offered.push_back(request.header("X-Zelisp-Token"));
    std::string authorization = request.header("Authorization");
    if (authorization.size() > 7 && lower(authorization.substr(0, 7)) == "bearer ") {
        size_t start = authorization.find_first_not_of(' ', 7);
        offered.push_back(start == std::string::npos ? "" : authorization.substr(start));
    }
    offered.push_back(cookie_value(request.header("Cookie"), "zelisp_token"));
    if (!changes_state(request.method) && request.has_arg("token")) {
        // A query decodes '+' as a blank, and a token has no blanks: a
        // base64 token pasted into a URL as it is still matches.
        std::string token = request.arg("token");
        std::replace(token.begin(), token.end(), ' ', '+');
        offered.push_back(token);
    }
    *given = false;
    for (const std::string &token : offered) {
        if (token.empty())
            continue;
        *given = true;
        if (token_matches(token))
            return token;
    }
    return "";
}

bool AccessRules::token_matches(const std::string &given) const
{
    return !policy_.token.empty() && same_secret(given, policy_.token);
}

AccessRules::Verdict AccessRules::check(const HttpRequest &request, bool needs_token) const
{
    std::string host = request.header("Host");
    if (host.empty())
        return {421, "the request names no host: send a Host header"};
    if (!host_allowed(host))
        return {421, "the Host '" + host + "' is not a name of this console (allow a name with --allow-host)"};
    std::string site = request.header("Sec-Fetch-Site");
    bool navigation = request.method == "GET" && request.header("Sec-Fetch-Mode") == "navigate";
    if (!site.empty() && site != "same-origin" && site != "none" && !navigation)
        return {403, "cross-site request refused: the console answers its own page only"};
    if (changes_state(request.method) && !origin_allowed(request))
        return {403, "cross-origin request refused: changes come from this console's own page"};
    if (needs_token && has_token()) {
        bool given = false;
        if (given_token(request, &given).empty())
            return {401, given ? "wrong token"
                               : "this console needs its token: open /login?token=TOKEN, or send the "
                                 "X-Zelisp-Token header"};
    }
    return {};
}

std::string AccessRules::token_cookie(const HttpRequest &request) const
{
    // Secure when the browser reached us over TLS, directly or through the proxy.
    bool secure = request.tls || lower(request.header("Origin")).rfind("https://", 0) == 0 ||
                  lower(request.header("X-Forwarded-Proto")) == "https";
    return "zelisp_token=" + policy_.token + "; Path=/; HttpOnly; SameSite=Strict" + (secure ? "; Secure" : "");
}

} // namespace zcam
