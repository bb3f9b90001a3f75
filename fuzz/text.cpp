// Any text, parsed while an allocation fails: the tree is the same as otherwise, or there is none.
//
// The input's first two bytes say which allocation fails; both 255 mean each one in turn.

#include <algorithm>
#include <memory>
#include <new>
#include <string>

#include "priv_rova_export.hpp"
#include "support/allocation_failure.hpp"
#include "target.hpp"

namespace {

const std::string no_memory = "memory has run out";
const size_t each_in_turn = 0xFFFF;

std::string printed(const core::export_field& field)
{
    core::json_c_serializer serializer;
    field.accept(serializer);
    const uint8_t* text = nullptr;
    uint32_t length = 0;
    serializer.serialize(&text, &length);
    return reinterpret_cast<const char*>(text);
}

/** The tree of a text, printed; or why there is none. */
std::string read(const std::string& text, support::allocation_trap& trap)
{
    const auto* const bytes = reinterpret_cast<const uint8_t*>(text.c_str());
    core::json_c_serializer serializer;
    std::unique_ptr<core::export_field> tree;
    trap.arm();
    try {
        tree.reset(serializer.deserialize(bytes, static_cast<uint32_t>(text.size() + 1)));
        trap.disarm();
    } catch (const std::bad_alloc&) {
        trap.disarm();
        return no_memory;
    } catch (const rova::exception& refused) {
        trap.disarm();
        return refused.message();
    }
    return printed(*tree);
}

/** json-c may lose the end of such a number, which cannot be prevented. */
bool has_number_of_more_than_31_characters(const std::string& text)
{
    for (size_t begin = 0; (begin = text.find_first_of("+-.0123456789", begin)) < text.size();) {
        const size_t end = text.find_first_not_of("+-.0123456789eE", begin);
        if (std::min(end, text.size()) - begin > 31) {
            return true;
        }
        begin = end;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || !support::allocations_can_fail) {
        return 0;
    }
    const size_t which = data[0] | static_cast<size_t>(data[1]) << 8;
    const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
    if (has_number_of_more_than_31_characters(text)) {
        return 0;
    }
    // json-c itself is known to leak when an allocation fails.
    const support::expected_leaks scope;
    support::allocation_trap none(0);
    const std::string undisturbed = read(text, none);

    bool struck = true;
    for (size_t n = which == each_in_turn ? 1 : which; struck; ++n) {
        support::allocation_trap trap(n);
        const std::string disturbed = read(text, trap);
        require(disturbed == undisturbed || (trap.struck() && disturbed == no_memory),
                "a text gives the same tree or none when memory runs out");
        struck = trap.struck() && which == each_in_turn;
    }
    return 0;
}
