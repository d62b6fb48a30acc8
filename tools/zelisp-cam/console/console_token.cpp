// console_token.cpp - the console's token: reading, checking, making.
#include "console_token.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace zcam {

std::string check_token(const std::string &token)
{
    if (token.size() < kMinTokenLength)
        return "a token needs at least " + std::to_string(kMinTokenLength) + " characters (it has " +
               std::to_string(token.size()) + ")";
    if (token.size() > kMaxTokenLength)
        return "a token has at most " + std::to_string(kMaxTokenLength) + " characters";
    // Visible ASCII only, and none of the characters that end a cookie
    // value or a header item.
    for (unsigned char c : token)
        if (c <= ' ' || c >= 0x7f || c == '"' || c == ',' || c == ';' || c == '\\')
            return "a token may hold visible ASCII characters except '\"', ',', ';' and '\\'";
    return "";
}

std::string read_token_file(const std::string &path, std::string *token)
{
    std::ifstream file(path);
    if (!file)
        return strerror(errno);
    std::getline(file, *token);
    while (!token->empty() && (token->back() == '\r' || token->back() == ' ' || token->back() == '\t'))
        token->pop_back();
    if (token->empty())
        return "its first line is empty";
    return "";
}

std::string generate_token()
{
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    unsigned char bytes[24];
    size_t got = 0;
    while (got < sizeof bytes) {
        ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
        if (n > 0)
            got += size_t(n);
    }
    std::string token;
    for (size_t i = 0; i < sizeof bytes; i += 3) {
        uint32_t group = uint32_t(bytes[i]) << 16 | uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6)
            token += kAlphabet[(group >> shift) & 63];
    }
    return token;
}

bool same_secret(const std::string &given, const std::string &secret)
{
    unsigned char difference = given.size() == secret.size() ? 0 : 1;
    for (size_t i = 0; i < secret.size(); ++i)
        difference |= static_cast<unsigned char>(secret[i] ^ (i < given.size() ? given[i] : 0));
    return difference == 0;
}

} // namespace zcam
