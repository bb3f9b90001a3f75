#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <set>

#include "child_process.hpp"
#include "commands.hpp"
#include "console.hpp"
#include "devices.hpp"
#include "json.hpp"
#include "published_descriptor.hpp"
#include "shared_file.hpp"
#include "signals.hpp"

namespace tool {
namespace {

bool is_folder(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/** A temporary folder for descriptors when --out is not given; removed at the end. */
class temporary_folder {
public:
    temporary_folder()
    {
        const char* place = std::getenv("TMPDIR");
        const std::string parent = place != nullptr && *place == '/' ? place : "/tmp";
        if (!is_folder(parent)) {
            throw failure("there is no folder " + in_quotes(parent) +
                          " for the descriptors; set TMPDIR to one, or name a file with --out");
        }
        m_path = parent + "/" + random_name("rova_umem.");
        m_leftover = std::make_unique<leftover>(open_folder_of(m_path), name_in_folder(m_path),
                                                std::nullopt, leftover::kind::folder);
        if (mkdir(m_path.c_str(), 0700) != 0) {
            m_leftover->keep();  // another program has created it
            fail("create a folder in", in_quotes(parent), "; name a file with --out");
        }
    }

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    std::unique_ptr<leftover> m_leftover;
};

/** The descriptor's path for each file, in the order of the files. */
std::vector<std::string> descriptor_paths(const options& given, const std::string& folder)
{
    std::vector<std::string> paths;
    std::transform(
        given.operands.begin(), given.operands.end(), std::back_inserter(paths),
        [&](const std::string& file) { return folder + "/" + name_in_folder(file) + ".desc"; });
    const std::set<std::string> different(paths.begin(), paths.end());
    if (different.size() < paths.size()) {
        throw failure("two of the files have the same name, and so would their descriptors",
                      exit_code::usage);
    }
    return paths;
}

std::vector<std::string> descriptor_paths(const options& given)
{
    const std::string& out = given.out.value();
    const bool names_folder = !out.empty() && out.back() == '/';
    if (!names_folder && !is_folder(out)) {
        if (given.operands.size() > 1) {
            throw failure(in_quotes(out) + " is not a folder; with several files, --out names one",
                          exit_code::usage);
        }
        return {out};
    }
    if (!is_folder(out)) {
        throw failure("there is no folder " + in_quotes(out) + "; create it first");
    }
    return descriptor_paths(given, names_folder ? out.substr(0, out.size() - 1) : out);
}

/** The whole run of the command: files are registered, descriptors appear and go away. */
class share_run {
public:
    explicit share_run(const options& given) : m_given(given)
    {
        if (!given.out && given.command.empty()) {
            throw failure("--out is required: it says where to put the descriptor",
                          exit_code::usage);
        }
        if (given.seconds && !given.command.empty()) {
            throw failure(
                "--seconds and --command exclude each other: sharing ends with the program",
                exit_code::usage);
        }
        const device_name device = sharing_device(given);
        // Before the device: its threads then inherit a mask that leaves signals to this program.
        remove_leftovers_on_signals();
        for (const std::string& file : given.operands) {
            m_files.emplace_back(file, given);
        }
        choose_descriptors();
        m_devices.network = open_device(device, given);
        if (given.kind == "gpu") {
            m_devices.gpu = make<gpu_ptr>("a GPU", rova_soft_gpu_open);
        }
    }

    int run()
    {
        for (shared_file& file : m_files) {
            file.register_with(m_devices);
        }
        for (size_t i = 0; i < m_files.size(); ++i) {
            m_descriptors[i].publish(m_files[i].export_descriptor());
        }
        announce();
        const int code = m_given.command.empty() ? wait() : run_command();
        m_descriptors.clear();
        end_regions();
        if (m_given.command.empty() && !m_given.json) {
            say("Sharing has ended.\n");
        }
        return code;
    }

private:
    void choose_descriptors()
    {
        if (!m_given.out) {
            m_folder = std::make_unique<temporary_folder>();
        }
        const auto paths =
            m_given.out ? descriptor_paths(m_given) : descriptor_paths(m_given, m_folder->path());
        for (const std::string& path : paths) {
            for (const shared_file& file : m_files) {
                if (same_regular_file(file.path(), path)) {
                    throw failure("the descriptor would replace the shared file " +
                                      in_quotes(file.path()) + "; name another file with --out",
                                  exit_code::usage);
                }
            }
            m_descriptors.emplace_back(path);
        }
    }

    void announce() const
    {
        if (m_given.json) {
            print(json_line(summary()));
        } else if (m_given.command.empty()) {  // else standard output is the program's
            say((m_files.size() == 1 ? lines_for_one() : lines_for_several()) + "Serving " +
                (m_given.seconds ? "for " + count(*m_given.seconds, "second") + " or until Ctrl-C"
                                 : "until Ctrl-C") +
                ".\n");
        }
    }

    json_ptr summary() const
    {
        json_ptr regions = json_new_array();
        for (size_t i = 0; i < m_files.size(); ++i) {
            const region_facts facts = m_files[i].facts();
            json_ptr region = json_new_object();
            json_add(region, "file", m_files[i].path());
            json_add(region, "descriptor", m_descriptors[i].path());
            json_add(region, "bytes", m_files[i].size());
            json_add(region, "umem_id", uint64_t{facts.id});
            json_add(region, "page_size", uint64_t{facts.page_size});
            json_append(regions, std::move(region));
        }
        json_ptr result = json_new_object();
        json_add(result, "pid", static_cast<uint64_t>(getpid()));
        json_add(result, "device", m_given.device.value_or("soft"));
        json_add(result, "kind", m_given.kind);
        json_add(result, "writable", m_given.writable);
        json_add(result, "regions", std::move(regions));
        return result;
    }

    std::string kind_text() const
    {
        const char* memory = m_given.kind == "host"     ? "a copy in host memory"
                             : m_given.kind == "dmabuf" ? "the file itself, as a dma-buf"
                                                        : "a copy in GPU memory";
        return std::string(memory) + (m_given.writable ? ", readable and writable" : ", readable");
    }

    std::string lines_for_one() const
    {
        const shared_file& file = m_files.front();
        const region_facts facts = file.facts();
        table lines({false, false});
        lines.add({"shared", in_quotes(file.path()) + ", " + count(file.size(), "byte")});
        lines.add({"as", kind_text()});
        lines.add(
            {"umem id", std::to_string(facts.id) + ", pages of " + count(facts.page_size, "byte")});
        lines.add({"descriptor", in_quotes(m_descriptors.front().path()) + ", " +
                                     count(m_descriptors.front().size(), "byte")});
        return lines.text();
    }

    std::string lines_for_several() const
    {
        table lines({false, true, false});
        for (size_t i = 0; i < m_files.size(); ++i) {
            lines.add({in_quotes(m_files[i].path()), count(m_files[i].size(), "byte"),
                       in_quotes(m_descriptors[i].path())});
        }
        return lines.text() + "Each is " + kind_text() + ".\n";
    }

    /** Waits until the time is over. A signal ends the program meanwhile. */
    int wait() const
    {
        // About thirty years: no clock overflows.
        constexpr uint64_t longest = 1'000'000'000;
        timespec end{};
        clock_gettime(CLOCK_MONOTONIC, &end);
        end.tv_sec += static_cast<time_t>(std::min(m_given.seconds.value_or(longest), longest));
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
        }
        return 0;
    }

    /** Runs the program to its end. */
    int run_command() const
    {
        std::string paths;
        for (const published_descriptor& descriptor : m_descriptors) {
            paths += (paths.empty() ? "" : "\n") + absolute_path(descriptor.path());
        }
        child_setup setup;
        setup.environment = {"ROVA_UMEM_DESCRIPTOR=" + paths};
        setup.search_path = true;
        signal_forwarding forwarding;
        child_process program(m_given.command.front(), m_given.command, setup);
        forwarding.begin(program.pid());
        program.wait_until_it_ends();
        forwarding.end();
        const int status = program.wait_status();
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

    void end_regions()
    {
        for (shared_file& file : m_files) {
            file.deregister();
        }
        if (m_devices.gpu != nullptr) {
            reclaim(m_devices.gpu, "the GPU");
        }
        reclaim(m_devices.network, "the device");
    }

    const options& m_given;
    std::unique_ptr<temporary_folder> m_folder;
    sharing_devices m_devices;
    std::deque<shared_file> m_files;
    std::deque<published_descriptor> m_descriptors;
};

}  // namespace

int run_share(const options& given)
{
    // Lets in processes of the same user where the kernel otherwise lets in parents only.
    static_cast<void>(prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0));
    const int code = share_run(given).run();
    // If a signal has ended the program, the same signal ends this one.
    end_by_signal(code - 128);
    return code;
}

}  // namespace tool
