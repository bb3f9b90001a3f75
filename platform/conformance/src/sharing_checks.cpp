// What an import can reach, with which rights and for how long, within one process and between two.

#include <algorithm>
#include <atomic>
#include <future>
#include <utility>

#include "child_process.hpp"
#include "second_process.hpp"
#include "subject.hpp"

namespace rova::conformance {

namespace {

std::string imports_reach_the_same_memory(const device_layer& layer)
{
    need_transfers(layer);
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    memory.data()[memory.size() - 1] = 7;
    const registration made = exporter.add(memory);
    const registration imported = importer.import_block(exporter.export_block(made));
    require(importer.reads_byte(imported.second, memory.size() - 1, 7),
            "the importing device does not read the memory");
    require(importer.writes(imported.second, 0, {8}) && memory.data()[0] == 8,
            "the importing device does not write the memory");
    importer.end(imported);
    require(exporter.reads_byte(made.second, 0, 8), "ending an import has ended what was exported");
    exporter.end(made);
    importer.close();
    exporter.close();
    return "read and written by the importing device";
}

std::string imports_keep_the_rights(const device_layer& layer)
{
    need_transfers(layer);
    if (layer.read_only_flags == 0) {
        throw not_applicable("the flags for read-only access are not known");
    }
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    memory.fill(7);
    const registration made = exporter.add(memory.data(), memory.size(), layer.read_only_flags);
    const registration imported = importer.import_block(exporter.export_block(made));
    // The import of an import is read-only as well.
    const registration again = exporter.import_block(importer.export_block(imported));
    require(importer.reads_byte(imported.second, 0, 7), "the import could not be read");
    require(!importer.writes(imported.second, 0, {8}) && memory.holds(7),
            "an import of read-only memory could be written");
    require(!exporter.writes(again.second, 0, {8}) && memory.holds(7),
            "an import of an import of read-only memory could be written");
    exporter.end(again);
    importer.end(imported);
    exporter.end(made);
    importer.close();
    exporter.close();
    return "read-only memory could only be read";
}

/** Requires that an import reaches nothing, and ends it. */
void end_out_of_reach(const device_layer& layer, const device& importer,
                      const registration& imported)
{
    if (can_transfer(layer)) {
        bytes seen(1);
        require(!importer.reads(imported.second, 0, seen),
                "an import could be read after its exporter's registration had ended");
        require(!importer.writes(imported.second, 0, {8}),
                "an import could be written after its exporter's registration had ended");
    }
    importer.end(imported);
}

std::string imports_end_with_the_exporter(const device_layer& layer)
{
    need_transfers(layer);
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    const registration made = exporter.add(memory);
    const bytes block = exporter.export_block(made);
    const registration first = importer.import_block(block);
    const registration second = importer.import_block(importer.export_block(first));
    exporter.end(made);
    end_out_of_reach(layer, importer, first);
    end_out_of_reach(layer, importer, second);
    const attempt late = importer.try_import(block);
    if (late.made) {
        end_out_of_reach(layer, importer, *late.made);
    }
    require(memory.holds(0), "a refused write has written");
    importer.close();
    exporter.close();
    return concat("out of reach; a later import of the block was ",
                  late.made ? "accepted" : "refused");
}

/** A thread that repeats a transfer until it is refused. */
class transfers {
public:
    explicit transfers(std::function<bool()> transfer)
        : m_transfer(std::move(transfer)),
          m_running(std::async(std::launch::async, [this] { run(); }))
    {}

    void wait_for_begin() { m_begun.get_future().wait(); }

    /** Every transfer that begins after this call must be refused. */
    void end() { m_ended = true; }

    /** Waits for the refusal. */
    void join() { m_running.get(); }

private:
    void run()
    {
        m_begun.set_value();
        for (bool refused = false; !refused;) {
            const bool ended = m_ended;
            refused = !m_transfer();
            require(refused || !ended, "a transfer that began after the end was not refused");
        }
    }

    const std::function<bool()> m_transfer;
    std::atomic<bool> m_ended{false};
    std::promise<void> m_begun;
    std::future<void> m_running;
};

using transfer_call = std::function<bool(const device& importer, uint32_t id)>;

/** Ends a registration while an import transfers, and then fills the memory with 9. */
void end_during(const device_layer& layer, const fenced_memory& memory, const transfer_call& call)
{
    device exporter(layer);
    device importer(layer);
    const registration made = exporter.add(memory);
    const registration imported = importer.import_block(exporter.export_block(made));
    require(call(importer, imported.second), "an import could not be read or written");
    transfers running([&] { return call(importer, imported.second); });
    running.wait_for_begin();
    exporter.end(made);
    memory.fill(9);
    running.end();
    running.join();
    const bytes settled(memory.data(), memory.data() + memory.size());
    importer.end(imported);
    importer.close();
    exporter.close();
    require(std::equal(settled.begin(), settled.end(), memory.data()),
            "bytes of a write arrived after it had returned");
}

std::string running_transfers_end_with_the_exporter(const device_layer& layer)
{
    need_transfers(layer);
    const fenced_memory memory(size_t{2} << 20);
    memory.fill(7);
    end_during(layer, memory, [&](const device& importer, uint32_t id) {
        bytes seen(memory.size());
        const bool done = importer.reads(id, 0, seen);
        require(!done || std::all_of(seen.begin(), seen.end(), [](uint8_t b) { return b == 7; }),
                "a successful read gave bytes that were written after the end");
        return done;
    });
    const bytes eights(memory.size(), 8);
    end_during(layer, memory,
               [&](const device& importer, uint32_t id) { return importer.writes(id, 0, eights); });
    return "the running transfer returned, and the next one was refused";
}

/** The text of a refusal that the layer is allowed; empty if nothing was refused. */
std::string allowed_refusal(const device_layer& layer, const attempt& tried)
{
    if (tried.made) {
        return "";
    }
    require(tried.code.has_value() && !layer.reaches_other_processes,
            "a block of another process was refused by ", tried.refusal);
    return tried.refusal;
}

void import_in_second_process(const device_layer& layer, const channel& exporter)
{
    const bytes block = exporter.receive().value();
    device dev(layer);
    const attempt tried = dev.try_import(block);
    const std::string refusal = allowed_refusal(layer, tried);
    if (tried.made && can_transfer(layer)) {
        require(dev.reads_byte(tried.made->second, 1, 7), "the exporter's memory was not read");
        require(dev.writes(tried.made->second, 0, {8}), "the exporter's memory was not written");
    }
    exporter.send({refusal.begin(), refusal.end()});
    exporter.receive();
    if (tried.made) {
        end_out_of_reach(layer, dev, *tried.made);
    }
    dev.close();
}

std::string other_processes_import(const device_layer& layer)
{
    second_process importer(
        [&](const channel& exporter) { import_in_second_process(layer, exporter); });
    device dev(layer);
    const fenced_memory memory(page_size());
    memory.fill(7);
    const registration made = dev.add(memory);
    importer.send(dev.export_block(made));
    const bytes answer = importer.receive();
    const std::string refusal(answer.begin(), answer.end());
    require(!refusal.empty() || !can_transfer(layer) || memory.data()[0] == 8,
            "the bytes that another process wrote have not arrived");
    dev.end(made);
    importer.send({});
    importer.finish();
    dev.close();
    return refusal.empty() ? "used by another process until the registration ended"
                           : "refused in another process: " + refusal;
}

void export_in_second_process(const device_layer& layer, const channel& importer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    memory.fill(7);
    importer.send(dev.export_block(dev.add(memory)));
    // Waits until it is killed.
    importer.receive();
}

std::string imports_end_with_the_process(const device_layer& layer)
{
    second_process exporter(
        [&](const channel& importer) { export_in_second_process(layer, importer); });
    const bytes block = exporter.receive();
    device dev(layer);
    const attempt tried = dev.try_import(block);
    const std::string refusal = allowed_refusal(layer, tried);
    require(!tried.made || !can_transfer(layer) || dev.reads_byte(tried.made->second, 0, 7),
            "the exporter's memory was not read");
    exporter.kill();
    if (tried.made) {
        end_out_of_reach(layer, dev, *tried.made);
    }
    const attempt late = dev.try_import(block);
    if (late.made) {
        end_out_of_reach(layer, dev, *late.made);
    }
    dev.close();
    return refusal.empty() ? "out of reach once the exporting process was killed"
                           : "refused in another process: " + refusal;
}

}  // namespace

std::vector<check> sharing_checks()
{
    return {
        {"imports_reach_the_same_memory",
         "A device reaches the exporter's memory through an import.",
         {"import_makes_a_registration", "memory_is_reached_by_id"},
         imports_reach_the_same_memory},
        {"imports_keep_the_rights",
         "An import grants what the exporter's registration grants, and nothing more.",
         {"imports_reach_the_same_memory", "rights_are_enforced"},
         imports_keep_the_rights},
        {"imports_end_with_the_exporter",
         "After the exporter has ended its registration, its imports reach nothing.",
         {"imports_reach_the_same_memory"},
         imports_end_with_the_exporter},
        {"running_transfers_end_with_the_exporter",
         "Transfers that run while the exporter ends its registration return, and move nothing "
         "that came later.",
         {"imports_end_with_the_exporter"},
         running_transfers_end_with_the_exporter},
        {"other_processes_import",
         "Another process can import a block and use it until the registration ends, or the layer "
         "says that it cannot, and refuses with a code.",
         {"import_makes_a_registration", "imports_reach_the_same_memory"},
         other_processes_import},
        {"imports_end_with_the_process",
         "When the exporting process has ended, its memory cannot be reached through an import.",
         {"other_processes_import"},
         imports_end_with_the_process},
    };
}

}  // namespace rova::conformance
