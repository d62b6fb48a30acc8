/*
 * rig_processes.cpp - starting, watching and ending the rig's programs.
 */
#include "rig_processes.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

namespace rigtest {
namespace {

namespace fs = std::filesystem;

int decode_status(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void pause_briefly()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

} // namespace

std::string test_folder()
{
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    fs::path folder = fs::path(RIG_RUNS_DIR) / (std::string(info->test_suite_name()) + "." + info->name());
    fs::remove_all(folder);
    fs::create_directories(folder);
    return folder.string();
}

std::string read_text(const std::string &path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

Finished run(const std::string &folder, const std::string &command, int timeout)
{
    std::string out = folder + "/run.out", err = folder + "/run.err";
    std::string line = "cd '" + folder + "' && timeout " + std::to_string(timeout) + " " + command + " >'" + out +
                       "' 2>'" + err + "' </dev/null";
    Finished result;
    result.status = decode_status(std::system(line.c_str()));
    result.out = read_text(out);
    result.err = read_text(err);
    return result;
}

std::string on_board(const std::string &config, const std::string &program)
{
    return "env ASAN_OPTIONS=detect_leaks=0 GST_PLUGIN_PATH='" GST_PLUGIN_DIR "' '" ZELISP_SIM_RUN "' --config '" +
           config + "' -- " + program;
}

Background::Background(const std::string &folder, const std::string &name, const std::string &command)
    : out_path_(folder + "/" + name + ".out"), err_path_(folder + "/" + name + ".err")
{
    pid_ = fork();
    if (pid_ == 0) {
        std::string line = "cd '" + folder + "' && exec " + command + " >'" + out_path_ + "' 2>'" + err_path_ +
                           "' </dev/null";
        execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
}

Background::~Background()
{
    stop(5);
}

std::string Background::out() const
{
    return read_text(out_path_);
}

std::string Background::err() const
{
    return read_text(err_path_);
}

std::string Background::wait_for_line(const std::string &pattern, double seconds, bool error_stream)
{
    std::regex wanted(pattern);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    do {
        // Whether it ended is asked first, so that its last lines are read.
        bool ended = wait(0) >= 0;
        std::istringstream lines(error_stream ? err() : out());
        for (std::string line; std::getline(lines, line);)
            if (std::regex_search(line, wanted))
                return line;
        if (ended)
            return "";
        pause_briefly();
    } while (std::chrono::steady_clock::now() < deadline);
    return "";
}

int Background::wait(double seconds)
{
    if (pid_ <= 0)
        return status_;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            status_ = decode_status(status);
            return status_;
        }
        if (std::chrono::steady_clock::now() >= deadline)
            return -1;
        pause_briefly();
    }
}

int Background::stop(double seconds)
{
    if (pid_ <= 0)
        return status_;
    kill(pid_, SIGTERM);
    if (wait(seconds) < 0) {
        kill(pid_, SIGKILL);
        wait(seconds);
    }
    return status_;
}

} // namespace rigtest
