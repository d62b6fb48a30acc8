/*
 * console_token.h - the console's secret: where it comes from (a file, the
 * environment, or the command line, which every user of the machine can
 * read in ps), what makes one acceptable, and a fresh one when the console
 * listens beyond loopback without being given one.
 */
#ifndef ZELISP_CAM_CONSOLE_CONSOLE_TOKEN_H
#define ZELISP_CAM_CONSOLE_CONSOLE_TOKEN_H

#include <string>

namespace zcam {

constexpr const char *kTokenVariable = "ZELISP_CAM_TOKEN";
constexpr size_t kMinTokenLength = 16;
constexpr size_t kMaxTokenLength = 256;

// "" when `token` may be used, else why not.
std::string check_token(const std::string &token);
// The first line of FILE, without its line end and trailing blanks. "" or why not.
std::string read_token_file(const std::string &path, std::string *token);
// 24 random bytes in URL-safe base64: 32 characters that need no escaping
// in a URL, a header or a cookie.
std::string generate_token();
// Compares every byte whatever the first difference, so the time taken
// says nothing about how much of a guess was right.
bool same_secret(const std::string &given, const std::string &secret);

} // namespace zcam

#endif
