// hdrgpu-process-stats: runs a command several times and reports, per run,
// the wall time, the CPU time (user + system, all threads) and the peak
// resident memory the kernel accounted to it (wait4's rusage), then the
// medians. On a busy machine the CPU time moves much less than the wall time.
// Whole-process figures for the converter, measured from outside so that the
// program itself is unchanged.
//
//   hdrgpu-process-stats [--runs N] -- COMMAND [ARGS...]
//
// The command's standard output and error go to /dev/null. One JSON object on
// standard output:
//   {"runs": [{"wall_s": 0.512, "cpu_s": 0.9, "maxrss_kib": 270000, "exit": 0}, ...],
//    "median_wall_s": ..., "median_cpu_s": ..., "median_maxrss_kib": ..., "exit": 0}
// "exit" is the command's exit status (the last run's at the top level);
// a run killed by a signal is an error of this program (exit status 1).
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Run {
    double wallSeconds = 0;
    double cpuSeconds = 0;
    long maxRssKib = 0;
    int exitStatus = 0;
};

bool RunOnce(char** command, Run* run, std::string* error)
{
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0) {
        *error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (child == 0) {
        const int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        execvp(command[0], command);
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    std::memset(&usage, 0, sizeof usage);
    pid_t done;
    do {
        done = wait4(child, &status, 0, &usage);
    } while (done < 0 && errno == EINTR);
    const auto end = std::chrono::steady_clock::now();
    if (done != child) {
        *error = std::string("wait4: ") + std::strerror(errno);
        return false;
    }
    if (!WIFEXITED(status)) {
        *error = std::string(command[0]) + " ended by signal " + std::to_string(WTERMSIG(status));
        return false;
    }
    if (WEXITSTATUS(status) == 127) {
        *error = std::string("cannot run ") + command[0];
        return false;
    }
    run->wallSeconds = std::chrono::duration<double>(end - start).count();
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    run->cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    run->maxRssKib = usage.ru_maxrss;  // kibibytes on Linux
    run->exitStatus = WEXITSTATUS(status);
    return true;
}

template <typename T>
T Median(std::vector<T> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

int Usage()
{
    std::fprintf(stderr, "usage: hdrgpu-process-stats [--runs N] -- COMMAND [ARGS...]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    int runs = 5;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg == "--runs" && i + 1 < argc) {
            char* end = nullptr;
            const long n = std::strtol(argv[++i], &end, 10);
            if (end == nullptr || *end != '\0' || n < 1 || n > 1000) {
                return Usage();
            }
            runs = static_cast<int>(n);
        } else {
            return Usage();
        }
    }
    if (i >= argc) {
        return Usage();
    }
    char** command = argv + i;

    std::vector<Run> results;
    for (int r = 0; r < runs; ++r) {
        Run run;
        std::string error;
        if (!RunOnce(command, &run, &error)) {
            std::fprintf(stderr, "hdrgpu-process-stats: %s\n", error.c_str());
            return 1;
        }
        results.push_back(run);
    }
    std::vector<double> walls;
    std::vector<double> cpus;
    std::vector<long> rss;
    std::printf("{\"runs\": [");
    for (size_t r = 0; r < results.size(); ++r) {
        walls.push_back(results[r].wallSeconds);
        cpus.push_back(results[r].cpuSeconds);
        rss.push_back(results[r].maxRssKib);
        std::printf("%s{\"wall_s\": %.4f, \"cpu_s\": %.4f, \"maxrss_kib\": %ld, \"exit\": %d}", r == 0 ? "" : ", ",
                    results[r].wallSeconds, results[r].cpuSeconds, results[r].maxRssKib, results[r].exitStatus);
    }
    std::printf("], \"median_wall_s\": %.4f, \"median_cpu_s\": %.4f, \"median_maxrss_kib\": %ld, \"exit\": %d}\n",
                Median(walls), Median(cpus), Median(rss), results.back().exitStatus);
    return 0;
}
