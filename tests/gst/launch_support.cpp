// launch_support.cpp - programs run in the foreground and background.
#include "launch_support.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "../tools/tool_run.h"

namespace zelisp_launch_test {

using zelisp_tool_test::frame_number;
using zelisp_tool_test::read_png_luma;

std::string on_simulator(const std::string &command, const std::string &config)
{
    std::string prefix = "env ASAN_OPTIONS=detect_leaks=0 ";
    if (!config.empty())
        prefix += "ZELISP_SIM_CONFIG='" + config + "' ";
    return prefix + "'" ZELISP_SIM_RUN "' -- " + command;
}

std::string read_text(const std::string &path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

Launch run(const std::string &folder, const std::string &command)
{
    std::string log = folder + "/output.txt";
    std::string line = "cd '" + folder + "' && timeout 120 " + command + " >'" + log + "' 2>&1 </dev/null";
    int status = std::system(line.c_str());
    Launch result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = read_text(log);
    return result;
}

std::string write_config(const std::string &folder, const std::string &text)
{
    std::string path = folder + "/sim.ini";
    std::ofstream(path) << text;
    return path;
}

std::vector<uint32_t> painted_numbers(const std::vector<std::string> &files)
{
    std::vector<uint32_t> numbers;
    for (const std::string &file : files) {
        auto image = read_png_luma(file);
        auto number = image ? frame_number(*image) : std::nullopt;
        numbers.push_back(number.value_or(0));
    }
    return numbers;
}

int free_port(int type)
{
    int fd = socket(AF_INET, type, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

Background::Background(const std::string &folder, const std::string &command, const std::string &err_name)
    : err_path(folder + "/" + err_name)
{
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0)
        return;
    pid = fork();
    if (pid == 0) {
        dup2(pipe_fds[1], 1);
        close(pipe_fds[0]);
        close(pipe_fds[1]);
        std::string line = "cd '" + folder + "' && exec " + command + " 2>'" + err_path + "' </dev/null";
        execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    close(pipe_fds[1]);
    out = fdopen(pipe_fds[0], "r");
}

std::string Background::line()
{
    char text[4096];
    return out && std::fgets(text, sizeof text, out) ? std::string(text) : std::string();
}

bool Background::line_with(const std::string &text)
{
    for (std::string next = line(); !next.empty(); next = line())
        if (next.find(text) != std::string::npos)
            return true;
    return false;
}

std::optional<int> Background::finish(int seconds, rusage *usage)
{
    if (pid <= 0)
        return std::nullopt;
    // The process's own descriptor becomes readable when it ends: no
    // polling loop.
    int process = int(syscall(SYS_pidfd_open, pid, 0));
    if (process >= 0) {
        pollfd ready{process, POLLIN, 0};
        int polled = poll(&ready, 1, seconds * 1000);
        close(process);
        if (polled <= 0)
            return std::nullopt;
    }
    int status = 0;
    rusage used{};
    if (wait4(pid, &status, 0, &used) != pid)
        return std::nullopt;
    pid = -1;
    if (usage)
        *usage = used;
    return status;
}

int Background::stop()
{
    int status = -1;
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, &status, 0);
        pid = -1;
    }
    if (out)
        std::fclose(out);
    out = nullptr;
    return status;
}

Background::~Background()
{
    if (pid > 0)
        kill(pid, SIGKILL); // a run that went wrong must not outlive its test
    stop();
}

} // namespace zelisp_launch_test
