#include "tests/tool/run_tool.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string slurp_fd(int fd)
{
    std::string text;
    char buffer[65536];
    lseek(fd, 0, SEEK_SET);
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, size_t(n));
    return text;
}

}  // namespace

Tool_result run_tool(const std::vector<std::string>& args, const std::string& cwd,
                     const std::vector<std::string>& env)
{
    Tool_result result;
    FILE* out = tmpfile();
    FILE* err = tmpfile();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0)
            _exit(127);
        for (const std::string& entry : env)
            putenv(const_cast<char*>(entry.c_str()));
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(QV_TEST_TOOL_PATH));
        for (const std::string& arg : args)
            argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(QV_TEST_TOOL_PATH, argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = slurp_fd(fileno(out));
    result.err = slurp_fd(fileno(err));
    fclose(out);
    fclose(err);
    return result;
}

Temp_dir::Temp_dir()
{
    char pattern[] = "/tmp/fg_splice_test_XXXXXX";
    path_ = mkdtemp(pattern);
}

Temp_dir::~Temp_dir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_file(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out << bytes;
}

bool file_exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
