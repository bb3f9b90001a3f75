#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "commands.hpp"
#include "descriptor.hpp"
#include "files.hpp"
#include "interruption.hpp"
#include "sdk.hpp"

namespace tool {
namespace {

/** A registered region with the memory under it. Members end in the reverse order. */
struct sharing {
    device_ptr device;
    mapping host;
    gpu_ptr gpu;
    gpu_memory gpu_bytes;
    region_ptr region;
};

/** A file to share, open for as long as a dma-buf may need it. */
struct source_file {
    unique_fd fd;
    size_t size;
    std::string path;

    void load(uint8_t* memory) const
    {
        if (read_until_end(fd.get(), memory, size, in_quotes(path)) < size) {
            throw failure(in_quotes(path) + " became shorter while it was read; try again");
        }
    }
};

source_file open_source(const share_options& options)
{
    const bool needs_writing = options.kind == "dmabuf" && options.writable;
    unique_fd fd = open_file(options.file, needs_writing ? O_RDWR : O_RDONLY);
    const size_t size = regular_file_size(fd.get(), options.file);
    if (size == 0) {
        throw failure(in_quotes(options.file) + " is empty; a region has at least one byte");
    }
    return {std::move(fd), size, options.file};
}

uint32_t access_of(const share_options& options)
{
    return options.writable ? ROVA_SOFT_ACCESS_READ | ROVA_SOFT_ACCESS_WRITE
                            : ROVA_SOFT_ACCESS_READ;
}

sharing register_source(const source_file& source, const share_options& options)
{
    const uint32_t access = access_of(options);
    const std::string what = "a region of " + in_quotes(options.file);
    sharing shared;
    shared.device = make<device_ptr>("a device", rova_soft_dev_open);
    rova_dev* device = shared.device.get();
    if (options.kind == "dmabuf") {
        const auto page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));  // never fails
        shared.region = make<region_ptr>(what, priv_rova_umem_create_dmabuf, device,
                                         static_cast<void*>(nullptr), size_t{0}, source.size,
                                         page_size, source.fd.get(), access);
    } else if (options.kind == "gpu") {
        shared.gpu = make<gpu_ptr>("a GPU", rova_soft_gpu_open);
        shared.gpu_bytes = gpu_memory(shared.gpu.get(), source.size);
        source.load(shared.gpu_bytes.data());
        shared.region =
            make<region_ptr>(what, priv_rova_umem_gpu_create, shared.gpu.get(), device,
                             static_cast<void*>(shared.gpu_bytes.data()), source.size, access);
    } else {
        shared.host = mapping::anonymous(source.size);
        source.load(shared.host.data());
        shared.region =
            make<region_ptr>(what, priv_rova_umem_create, device,
                             static_cast<void*>(shared.host.data()), source.size, access);
    }
    return shared;
}

void end_sharing(sharing& shared)
{
    end(shared.region, "the region");
    if (shared.gpu != nullptr) {
        shared.gpu_bytes.end();
        end(shared.gpu, "the GPU");
    }
    end(shared.device, "the device");
}

/** The descriptor under its name, for as long as this lives and nobody replaces it. */
class published_descriptor {
public:
    published_descriptor(const std::string& path, const byte_vector& bytes)
    {
        output_file file(path);
        if (!file.is_temporary()) {
            throw failure(in_quotes(path) + " is not a regular file; name another one with --out");
        }
        write_all(file.fd(), bytes.data(), bytes.size(), in_quotes(path));
        m_path = file.path();
        m_known = fstat(file.fd(), &m_status) == 0;
        file.commit();
    }
    published_descriptor(const published_descriptor&) = delete;
    published_descriptor& operator=(const published_descriptor&) = delete;

    ~published_descriptor()
    {
        struct stat now {};
        if (m_known && stat(m_path.c_str(), &now) == 0 && same_file(now, m_status)) {
            static_cast<void>(unlink(m_path.c_str()));
        }
    }

private:
    std::string m_path;  ///< of the file itself, not of a link to it
    struct stat m_status {};
    bool m_known = false;
};

/** A descriptor takes the place of its file and removes it at the end: it must be no other file. */
void refuse_to_replace(const source_file& source, const std::string& descriptor)
{
    if (same_regular_file(source.path, descriptor)) {
        throw failure("the descriptor would replace the shared file " + in_quotes(source.path) +
                      "; name another file with --out");
    }
    struct stat target {};
    if (stat(descriptor.c_str(), &target) == 0 && S_ISREG(target.st_mode) &&
        !holds_descriptor(descriptor))
    {
        throw failure(in_quotes(descriptor) +
                      " exists and is no descriptor: name another file with --out");
    }
}

void announce(const share_options& options, const source_file& source, const sharing& shared,
              size_t descriptor_size)
{
    const region_facts facts(shared.region.get());
    const char* memory = options.kind == "host"     ? "a copy in host memory"
                         : options.kind == "dmabuf" ? "the file itself, as a dma-buf"
                                                    : "a copy in GPU memory";
    table lines({false, false});
    lines.add({"shared", in_quotes(source.path) + ", " + count(source.size, "byte")});
    lines.add({"as", std::string(memory) +
                         (options.writable ? ", readable and writable" : ", readable")});
    lines.add(
        {"umem id", std::to_string(facts.id) + ", pages of " + count(facts.page_size, "byte")});
    lines.add(
        {"descriptor", in_quotes(options.descriptor) + ", " + count(descriptor_size, "byte")});
    const std::string until = options.seconds
                                  ? "for " + count(*options.seconds, "second") + " or until Ctrl-C"
                                  : "until Ctrl-C";
    print(lines.text() + "Serving " + until + ".\n");
}

}  // namespace

int run_share(const share_options& options)
{
    // Processes of the same user are let in, also where the system lets in parents only.
    static_cast<void>(prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0));

    const source_file source = open_source(options);
    refuse_to_replace(source, options.descriptor);
    sharing shared = register_source(source, options);
    const byte_vector bytes = export_region(shared.region.get());
    const interruption stop;  // from here on there is a file to tidy up
    {
        const published_descriptor descriptor(options.descriptor, bytes);
        announce(options, source, shared, bytes.size());
        stop.wait(options.seconds);
    }
    end_sharing(shared);
    print("Sharing has ended.\n");
    return 0;
}

}  // namespace tool
