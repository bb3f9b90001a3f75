#include <new>

#include "command_line.hpp"
#include "console.hpp"
#include "failure.hpp"
#include "signals.hpp"

int main(int argc, char** argv)
{
    tool::exit_code code = tool::exit_code::failed;
    try {
        tool::open_standard_streams();
        tool::prepare_signals();
        return tool::run_command_line(argc, argv);
    } catch (const std::bad_alloc&) {
        tool::print_error("rova_umem: there is not enough memory\n");
    } catch (const tool::broken_pipe&) {
        // The reader has closed the pipe because it needs no more output.
    } catch (const tool::failure& error) {
        code = error.code();
        tool::print_error(std::string("rova_umem: ") + error.what() + "\n");
    } catch (const std::exception& error) {
        tool::print_error(std::string("rova_umem: ") + error.what() + "\n");
    }
    return static_cast<int>(code);
}
