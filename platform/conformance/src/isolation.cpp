#include "isolation.hpp"

#include <cxxabi.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <typeinfo>

#include "child_process.hpp"
#include "rova_exception.hpp"
#include "subject.hpp"

namespace rova::conformance {

namespace {

/** Carries one finding from the child process to its parent. */
class finding_pipe {
public:
    finding_pipe()
    {
        std::array<int, 2> ends = {};
        if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
            throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
        }
        m_read_end = descriptor(ends[0]);
        m_write_end = descriptor(ends[1]);
    }

    void put(const finding& found) const
    {
        // A write of up to PIPE_BUF bytes is atomic.
        std::string text(1, static_cast<char>(found.ended));
        text = (text + found.seen).substr(0, PIPE_BUF);
        [[maybe_unused]] const ssize_t written =
            ::write(m_write_end.number(), text.data(), text.size());
    }

    /** The finding; empty if the child ended before it wrote one. */
    std::string take() const
    {
        std::array<char, PIPE_BUF> text = {};
        const ssize_t size = ::read(m_read_end.number(), text.data(), text.size());
        return size > 0 ? std::string(text.data(), static_cast<size_t>(size)) : "";
    }

private:
    descriptor m_read_end;
    descriptor m_write_end;
};

std::string readable_type(const std::exception& e)
{
    struct free_deleter {
        void operator()(char* text) const { std::free(text); }
    };
    const char* const name = typeid(e).name();
    const std::unique_ptr<char, free_deleter> readable(
        abi::__cxa_demangle(name, nullptr, nullptr, nullptr));
    return readable != nullptr ? readable.get() : name;
}

finding run_and_look_for_leaks(const check& which, const device_layer& layer, bool look)
{
    finding found = run_here(which, layer);
    if (look && found.ended == outcome::passed && has_leaked()) {
        return {outcome::failed, "memory was lost: the leak sanitizer has written a report"};
    }
    return found;
}

}  // namespace

std::string describe_current_exception()
{
    try {
        throw;
    } catch (const rova::exception& e) {
        return concat(name_of(e.error_code()), " (\"", e.message(), "\")");
    } catch (const std::exception& e) {
        return concat(readable_type(e), " (\"", e.what(), "\") without a code");
    } catch (...) {
        return "something that is not a std::exception";
    }
}

finding run_here(const check& which, const device_layer& layer)
try {
    return {outcome::passed, which.run(layer)};
} catch (const violation& e) {
    return {outcome::failed, e.what()};
} catch (const not_applicable& e) {
    return {outcome::skipped, e.what()};
} catch (...) {
    const std::string thrown = describe_current_exception();
    return {outcome::failed, concat(thrown, " was thrown while ", current_step())};
}

finding run_in_child(const check& which, const device_layer& layer, unsigned timeout_s,
                     bool look_for_leaks)
{
    const finding_pipe pipe;
    child_process child([&] { pipe.put(run_and_look_for_leaks(which, layer, look_for_leaks)); });
    const auto status = child.wait(std::chrono::seconds(timeout_s));
    if (!status) {
        return {outcome::failed, concat("the process did not come to an end within ", timeout_s,
                                        " seconds; it was ", child.step())};
    }
    const std::string text = pipe.take();
    // A finding counts only if the process ended in the ordinary way.
    if (*status != 0 || text.empty()) {
        return {outcome::failed, child.describe_end(*status)};
    }
    return {static_cast<outcome>(text.front()), text.substr(1)};
}

}  // namespace rova::conformance
