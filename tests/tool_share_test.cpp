// The commands that share memory, read it and write it.

#include <linux/userfaultfd.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <array>
#include <tuple>
#include <vector>

#include "priv_rova_umem_api.h"
#include "rova_soft_platform.h"
#include "support/kernel_symbols.hpp"
#include "support/tool_process.hpp"

namespace {

using namespace support;

TEST_F(umem_tool, shares_memory_of_each_kind_with_other_processes)
{
    for (const std::string kind : {"host", "dmabuf", "gpu"}) {
        SCOPED_TRACE(kind);
        put("file", m_bytes);
        process share("share file --out descriptor --writable --kind " + kind, "Serving");
        EXPECT_EQ(run("inspect --live descriptor").second, 0);
        EXPECT_EQ(run("read descriptor").first, m_bytes);
        EXPECT_EQ(run("read - --offset 0xA --length 68K <descriptor").first,
                  m_bytes.substr(10, 68 * 1024));

        put("input", "0123456789x");
        EXPECT_EQ(run("write descriptor --offset 99990 --length 10 <input").second, 0);
        EXPECT_EQ(run("write descriptor --from input --length 5").second, 0);
        const std::string changed = "01234" + m_bytes.substr(5, 99985) + "0123456789";
        EXPECT_EQ(run("read descriptor --out copy 2>&1").first, "");
        EXPECT_EQ(run("read descriptor --out /dev/stdout >copy 2>&1").second, 0);
        EXPECT_EQ(get("copy"), changed);
        EXPECT_EQ(get("file"), kind == "dmabuf" ? changed : m_bytes);

        const int signal = kind == "host" ? SIGINT : SIGTERM;
        EXPECT_EQ(share.end_with(signal), -signal);
        EXPECT_EQ(files(), 3) << "the descriptor and temporary files are gone";
    }
}

TEST_F(umem_tool, a_long_read_fails_when_the_exporter_is_killed_and_leaves_no_file)
{
    put("file", std::string(8'000'000, 'x'));
    process share("share file --out descriptor", "Serving");
    process unread("read descriptor 2>errors");
    EXPECT_EQ(unread.exit_code(), 1);
    EXPECT_EQ(get("errors"), "") << "whoever closed the pipe has what was wanted";

    // The pipe holds far less than the region, so the reader cannot have finished.
    process read("read descriptor 2>errors", "xxxx");
    EXPECT_EQ(share.end_with(SIGKILL), -SIGKILL);
    EXPECT_LT(read.output().size(), 7'999'996U);
    EXPECT_EQ(read.exit_code(), 3);
    EXPECT_TRUE(has(get("errors"), "ROVA_ERROR_NOT_FOUND")) << get("errors");

    expect("read descriptor --out copy", 3, "Share it again");
    expect("inspect --brief --live descriptor", 3, ", gone");
    expect("inspect descriptor", 0, ", which does not run");
    EXPECT_EQ(files(), 3) << "the file, the orphaned descriptor and the errors";
    process again("share file --out descriptor", "Serving");
    EXPECT_EQ(run("inspect --live descriptor").second, 0) << "an orphan is replaced";
}

TEST_F(umem_tool, a_descriptor_belongs_to_the_share_that_lives)
{
    process share("share file --out descriptor", "Serving");
    expect("share file --out descriptor", 1, "another rova_umem share, which still runs");
    EXPECT_EQ(run("read descriptor").first, m_bytes);

    // A file that somebody else has put in its place is not removed.
    std::filesystem::rename("descriptor", "moved");
    put("descriptor", "other");
    EXPECT_EQ(share.end_with(SIGTERM), -SIGTERM);
    EXPECT_EQ(get("descriptor"), "other");
}

TEST_F(umem_tool, an_exporter_in_a_container_is_told_from_one_that_has_ended)
{
    const std::string container = "unshare -rpf --mount-proc --kill-child";
    if (std::system((container + " true 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "this user cannot make a pid namespace";
    }
    process share("share file --out descriptor", "Serving", container);
    expect("read descriptor", 1, "runs in another pid namespace");
    expect("inspect descriptor", 0, "here it is process");
    expect("read descriptor", 3, "has ended, or it runs in another", container);
}

TEST_F(umem_tool, several_files_have_a_descriptor_each)
{
    put("[second]", "2");
    expect("share file [second] --out descriptor", 2, "is not a folder");
    std::filesystem::create_directory("folder");
    process share("share file [second] --out folder/ --json", "]}\n");
    EXPECT_EQ(run("read folder/[second].desc").first, "2");
    EXPECT_EQ(run("read folder/file.desc").first, m_bytes);
    EXPECT_EQ(share.end_with(SIGTERM), -SIGTERM);
    EXPECT_TRUE(std::filesystem::is_empty("folder"));

    std::filesystem::copy("file", "folder/file");
    expect("share file folder/file --out folder", 2, "the same name");
    const std::string json = run("share file [second] --out folder --seconds 1 --json").first;
    EXPECT_EQ(json_value(json, "/regions/1/bytes"), "1");
    EXPECT_EQ(json_value(json, "/regions/0/descriptor"), R"("folder\/file.desc")");
}

TEST_F(umem_tool, shares_for_as_long_as_a_command_runs)
{
    const std::string shared = "share file --command sh -c ";
    EXPECT_EQ(run(shared + "'" ROVA_UMEM_TOOL " read \"$ROVA_UMEM_DESCRIPTOR\"'").first, m_bytes);
    const std::string path = run(shared + "'echo $ROVA_UMEM_DESCRIPTOR'").first;
    EXPECT_FALSE(std::filesystem::exists(path.substr(0, path.rfind('/')))) << path;

    expect(shared + "'exit 42'", 42, "");
    expect(shared + "'kill -TERM $$'", -SIGTERM, "");
    expect("share file --command ./none", 127, "cannot start './none'");
    expect("share file --command ./file", 126, "Permission denied; check its permissions");
    expect("share file --command", 2, "needs the name of a program");
    expect("share file --command true", 1, "set TMPDIR to one", "TMPDIR=/none");
    expect("share file --command true", 1, "File too large", "prlimit --fsize=100");
    // A signal is passed on to the program, and the share ends with it.
    mkfifo("fifo", 0600);
    process waiting(
        "share file --out d --command "
        "sh -c 'trap \"exit 7\" TERM; exec 3<>fifo; echo on; while :; do read x <&3; done'",
        "on");
    EXPECT_EQ(waiting.end_with(SIGTERM), 7);
    EXPECT_FALSE(std::filesystem::exists("d"));
}

TEST_F(umem_tool, files_of_the_kernel_are_shared_as_they_are_read)
{
    for (const std::string file : {"/proc/version", "/sys/kernel/mm/transparent_hugepage/enabled"})
    {
        if (std::filesystem::exists(file)) {
            EXPECT_EQ(run("share " + file + " --out d --command " ROVA_UMEM_TOOL " read d").first,
                      get(file));
            expect("share " + file + " --kind dmabuf --out d", 1, "is a file of the kernel");
        }
    }
}

TEST_F(umem_tool, misuse_is_explained_on_standard_error)
{
    process share("share file --out descriptor", "Serving");
    put("empty", "");
    put("input", "input");
    mkfifo("fifo", 0600);
    std::filesystem::create_symlink("input", "link");
    std::filesystem::create_symlink("none", "dangling");
    std::filesystem::create_hard_link("empty", "hard_link");
    const std::tuple<std::string, int, const char*> cases[] = {
        {"", 2, "name a command"},
        {"share file", 2, "--out is required"},
        {"read descriptor --offset 99999999999999999999", 2, "is not a number"},
        {"read descriptor --length 16777216T", 2, "is not a number"},
        {"read descriptor --device fabric", 2, "is not a device"},
        {"read descriptor --device fabric:127.0.0.1", 2, "made by a soft device"},
        {"share none --out d", 1, "No such file"},
        {"share . --out d", 1, "is a folder"},
        {"read /", 1, "'/' is a folder"},
        {"share fifo --out d", 1, "is not a regular file"},
        {"share empty --out d", 1, "is empty"},
        {"share file --out file", 2, "would replace the shared file"},
        {"share file --out none/d", 1, "cannot create"},
        {"share file --out file/d", 1, "Not a directory"},
        {"share file --out fifo", 1, "is not a regular file"},
        {"share file --out dangling", 1, "is a symbolic link"},
        {"share file --out ''", 2, "--out: the name is empty"},
        {"share file --out d --kind x", 2, "'x' is not one of host, dmabuf and gpu"},
        {"share file --out d --provider tcp", 2, "--provider is for fabric devices"},
        {"read descriptor --allow 10.0.0.0/8", 2, "made by a soft one; leave it out"},
        {"inspect descriptor --device soft", 2, "add --live"},
        {"read descriptor --hex=no", 2, "--hex takes no value"},
        {"read descriptor --length", 2, "--length needs a value"},
        {"read descriptor --length 1 --length 2", 2, "--length is given more than once"},
        {"read descriptor descriptor", 2, "only one DESCRIPTOR"},
        {"read --lenght 1 descriptor", 2, "no option '--lenght'"},
        {"share file --out input", 1, "exists and is not a descriptor"},
        {"read descriptor --offset 100001", 2, "is beyond the end"},
        {"read descriptor --offset 1 --length 100000", 2, "99999 of them"},
        {"read - --out input", 2, "would replace the descriptor"},
        {"read descriptor --out link", 1, "is a symbolic link"},
        {"read descriptor --out dangling", 1, "leads nowhere"},
        {"read descriptor --out hard_link", 1, "more than one name"},
        {"read descriptor --out ./", 2, "names a folder"},
        {"write descriptor", 4, "Share it with --writable"},
        {"write descriptor --offset 99999", 1, "room for 1 byte; nothing has been written"},
        {"write descriptor --from input --length 6", 1, "only 5 bytes"},
        {"write descriptor --length 6", 1, "only 5 bytes of the 6"},
        {"write descriptor --from file --offset 1", 1, "is too long"},
        {"write - ", 2, "cannot be both"},
        {"inspect /dev/zero", 5, "more than 65536 bytes, too many for a descriptor"},
        {"\x1b[31m", 2, "'\\x1b[31m' is not a command"},
        {"read descriptor '--\x1b'", 2, "--\\x1b"},
    };
    for (const auto& [arguments, code, text] : cases) {
        expect(">output <input " + arguments, code, text);
        EXPECT_EQ(get("output"), "") << arguments;
    }
    expect("inspect none descriptor --brief", 1,
           "descriptor: intact, 100000 bytes, readable, process");
    std::filesystem::remove("output");
    EXPECT_EQ(files(), 8) << "no failure leaves a file";
    EXPECT_EQ(get("file") + get("input") + get("empty"), m_bytes + "input");
}

/** Where files without names are not supported, a file is written under a name of its own. */
const std::string without_unnamed_files = "LD_PRELOAD=" ROVA_TOOL_SHIM;

TEST_F(umem_tool, a_file_is_replaced_whole_and_keeps_its_mode_and_owner)
{
    process share("share file --out descriptor", "Serving");
    for (const std::string& before : {std::string(), without_unnamed_files}) {
        const std::string longest(250, 'n');
        for (const std::string& name : {std::string("copy"), longest}) {
            EXPECT_EQ(run("read descriptor --length 9 --out " + name, before).second, 0);
            EXPECT_EQ(get(name).size(), 9U);
            ASSERT_EQ(chmod(name.c_str(), 0640), 0);
            const bool is_root = geteuid() == 0 && chown(name.c_str(), 1, 2) == 0;
            EXPECT_EQ(run("read descriptor --out " + name, before).second, 0);
            EXPECT_EQ(get(name), m_bytes);
            struct stat status {};
            ASSERT_EQ(stat(name.c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 0777, 0640U);
            EXPECT_EQ(status.st_uid + status.st_gid, is_root ? 3 : geteuid() + getegid());
            if (is_root) {  // an ordinary user cannot plant a file of somebody else's
                chmod(".", 01777);
                expect("read descriptor --out " + name, 4, "belongs to another user", before);
                chmod(".", 0700);
            }
            std::filesystem::remove(name);
        }
        expect("read descriptor --out none/copy", 1, "cannot create", before);
        EXPECT_EQ(files(), 2);
    }
}

TEST_F(umem_tool, streams_that_do_not_block_are_waited_for)
{
    put("file", std::string(1'000'000, 'x'));
    process share("share file --out descriptor --writable", "Serving");
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC), 0);
    // It has room for one page, so the program often finds it full.
    ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096);
    ASSERT_EQ(dup2(ends[1], 9), 9);
    process read("read descriptor >&9");
    close(9);
    close(ends[1]);
    std::array<char, 65536> piece{};
    size_t total = 0;
    for (pollfd end{ends[0], POLLIN, 0}; poll(&end, 1, -1) == 1;) {
        const ssize_t size = ::read(ends[0], piece.data(), piece.size());
        if (size <= 0) {
            break;
        }
        total += static_cast<size_t>(size);
    }
    close(ends[0]);
    EXPECT_EQ(total, 1'000'000U);
    EXPECT_EQ(read.exit_code(), 0);
}

/** Memory of this process that never arrives, so that a reader waits. */
class endless_memory {
public:
    endless_memory() : m_file(static_cast<int>(syscall(SYS_userfaultfd, O_CLOEXEC)))
    {
        uffdio_api api{};
        api.api = UFFD_API;
        uffdio_register range{};
        m_memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        range.range = {reinterpret_cast<uintptr_t>(m_memory), size};
        range.mode = UFFDIO_REGISTER_MODE_MISSING;
        m_works = m_file >= 0 && ioctl(m_file, UFFDIO_API, &api) == 0 &&
                  ioctl(m_file, UFFDIO_REGISTER, &range) == 0;
    }
    ~endless_memory()
    {
        close(m_file);
        munmap(m_memory, size);
    }

    /** Returns when a reader waits for the memory. */
    void await_reader() const
    {
        uffd_msg message{};
        EXPECT_EQ(::read(m_file, &message, sizeof message), ssize_t{sizeof message});
    }

    static constexpr size_t size = 4096;
    int m_file;
    void* m_memory;
    bool m_works;
};

TEST_F(umem_tool, a_signal_ends_a_read_that_waits_for_memory_and_no_file_is_left)
{
    const endless_memory memory;
    if (!memory.m_works) {
        GTEST_SKIP() << "the kernel does not let this user hold up page faults";
    }
    rova_dev* device = nullptr;
    priv_rova_umem* region = nullptr;
    void* descriptor = nullptr;
    size_t length = 0;
    ASSERT_EQ(rova_soft_dev_open(&device), ROVA_SUCCESS);
    ASSERT_EQ(priv_rova_umem_create(device, memory.m_memory, memory.size, 1, &region),
              ROVA_SUCCESS);
    ASSERT_EQ(priv_rova_umem_export(region, &descriptor, &length), ROVA_SUCCESS);
    put("descriptor", {static_cast<const char*>(descriptor), length});
    for (const std::string& before : {std::string(), without_unnamed_files}) {
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            process read("read descriptor --out copy", "", before);
            memory.await_reader();
            EXPECT_EQ(read.end_with(signal), -signal);
            EXPECT_EQ(files(), 2);
        }
    }
    EXPECT_EQ(priv_rova_umem_destroy(region), ROVA_SUCCESS);
    EXPECT_EQ(rova_platform_dev_close(device), ROVA_SUCCESS);
}

TEST_F(umem_tool, reads_and_writes_memory_of_another_host)
{
    hide_kernel_symbols();
    process share("share file --writable --out descriptor --device fabric:127.0.0.1 2>&1", "");
    const std::string said = share.output("\n");
    if (has(said, "cannot be used here") || has(said, "ROVA_ERROR_INITIALIZATION")) {
        GTEST_SKIP() << said;
    }
    share.output("Serving");
    expect("read descriptor", 2, "give the address of this host");
    expect("inspect descriptor --brief", 0, "another host: 127.0.0.1:");
    EXPECT_FALSE(has(run("2>&1 inspect descriptor --verbose").first, "error CORE::"));
    expect("inspect descriptor --live", 2, "finding: intact");
    const std::string device = " --device fabric:127.0.0.2 ";
    put("input", "12345");
    expect("write descriptor --from input --offset 3" + device, 0, "wrote 5 bytes at offset 3");
    EXPECT_EQ(run("read descriptor" + device).first,
              m_bytes.substr(0, 3) + "12345" + m_bytes.substr(8));
    expect("read descriptor --allow 10.0.0.0/8" + device, 4, "allow it with --allow");
    kill(share.m_pid, SIGSTOP);
    EXPECT_EQ(waitpid(share.m_pid, nullptr, WUNTRACED), share.m_pid);
    expect("read descriptor --time-limit 1" + device, 6, "TIME_OUT");
    EXPECT_EQ(share.end_with(SIGKILL), -SIGKILL);
    expect("inspect --live descriptor" + device, 3, "live: gone");
}

}  // namespace
