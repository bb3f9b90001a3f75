/**
 * @file
 * @defgroup export_framework Export framework (priv_rova_export.hpp)
 *
 * The export framework: how a component describes an object to another process.
 *
 * An object is described as a tree of typed fields, which is printed as JSON and wrapped in an
 * envelope; the bytes that come out are the export descriptor. The reader goes the same way back.
 * From the bytes up, this header holds
 *
 *   1. the envelope:    export_header, export_header_0_0, export_header_factory
 *   2. the field tree:  export_field and its eight classes
 *   3. the proto:       export_proto, the way to write and read a tree
 *   4. JSON:            json_c_serializer, a tree to text and text to a tree
 *   5. both ends:       priv_rova_exporter, priv_rova_importer
 *
 * Failures are thrown and caught by the exported functions of the component; nothing here catches.
 * What the framework refuses it refuses with a rova::exception, which has a code and the place;
 * std::bad_alloc, and std::out_of_range from an array's `at`, pass as they are. Where json-c gives
 * what it never should, it is a std::logic_error (no text) or a std::runtime_error (no such type).
 * Objects are used by one thread at a time, and separate trees are independent; a node may be
 * released on another thread than it was made on.
 *
 * @{
 */
#pragma once

#include <locale.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <json-c/json.h>

#include "priv_rova_utils.hpp"
#include "rova_exception.hpp"

namespace core {

/**
 * @defgroup export_envelope 1. The envelope
 * @ingroup export_framework
 * @{
 */

/** Bytes that the holder owns, and their number. */
using export_buf_ptr = std::pair<std::vector<uint8_t>, uint32_t>;

/** The first 12 bytes of a descriptor, each field little-endian, in this order. */
struct common_header {
    uint32_t crc;                 /**< over the whole descriptor, with this field 0 */
    uint16_t major_minor_version; /**< major in the top 6 bits, minor in the low 10 */
    uint16_t header_length;       /**< where the payload begins */
    uint32_t payload_length;      /**< how long it is */

    static constexpr size_t size_bytes = 12;

    static common_header read(const uint8_t* bytes)
    {
        return {read_32(bytes), read_16(bytes + 4), read_16(bytes + 6), read_32(bytes + 8)};
    }

    void write(uint8_t* bytes) const
    {
        write_32(bytes, crc);
        write_16(bytes + 4, major_minor_version);
        write_16(bytes + 6, header_length);
        write_32(bytes + 8, payload_length);
    }

private:
    static uint16_t read_16(const uint8_t* bytes)
    {
        return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
    }

    static uint32_t read_32(const uint8_t* bytes)
    {
        return read_16(bytes) | static_cast<uint32_t>(read_16(bytes + 2)) << 16;
    }

    static void write_16(uint8_t* bytes, uint16_t value)
    {
        bytes[0] = static_cast<uint8_t>(value);
        bytes[1] = static_cast<uint8_t>(value >> 8);
    }

    static void write_32(uint8_t* bytes, uint32_t value)
    {
        write_16(bytes, static_cast<uint16_t>(value));
        write_16(bytes + 2, static_cast<uint16_t>(value >> 16));
    }
};

static_assert(sizeof(common_header) == common_header::size_bytes, "no padding between the fields");

/** The checksum that belongs into a descriptor's first field, which counts as 0. */
inline uint32_t descriptor_checksum(const uint8_t* blob, size_t blob_length)
{
    const uint8_t no_crc[sizeof(common_header::crc)] = {};
    uint32_t state = priv_rova_utils_crc32_start;
    state = priv_rova_utils_crc32_normal_update(state, no_crc, sizeof(no_crc));
    state = priv_rova_utils_crc32_normal_update(state, blob + sizeof(no_crc),
                                                blob_length - sizeof(no_crc));
    return ~state;
}

/**
 * An envelope version whose major number is known and whose minor is not: its payload can be read,
 * but it cannot be written. Without state.
 */
class export_header {
public:
    /** Where the key stream of the scrambling starts. The same in every process. */
    static constexpr char xor_key = 0x4E;

    virtual ~export_header() = default;

    /** The descrambled payload of a descriptor that export_header_factory::evaluate accepted. */
    virtual export_buf_ptr get_payload(const uint8_t* blob, size_t blob_length) const
    {
        if (blob_length < common_header::size_bytes) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE,
                                  "blob length is smaller than common export export_header length",
                                  ROVA_HERE);
        }
        const common_header header = common_header::read(blob);
        std::vector<uint8_t> payload(header.payload_length);
        priv_rova_utils_scramble_descramble(payload.data(), blob + header.header_length,
                                            payload.size(), xor_key);
        return {std::move(payload), header.payload_length};
    }

    /** The descriptor around a payload; here always refused. */
    virtual export_buf_ptr serialize(const uint8_t* /*payload*/, uint32_t /*payload_length*/)
    {
        throw rova::exception(ROVA_ERROR_UNSUPPORTED_VERSION,
                              "can't serialize unknown export_header", ROVA_HERE);
    }
};

/** Envelope version 0.0, the one that is written. Without state. */
class export_header_0_0 : public export_header {
public:
    export_buf_ptr get_payload(const uint8_t* blob, size_t blob_length) const override
    {
        return export_header::get_payload(blob, blob_length);
    }

    export_buf_ptr serialize(const uint8_t* payload, uint32_t payload_length) override
    {
        if (payload_length > std::numeric_limits<uint32_t>::max() - common_header::size_bytes) {
            throw rova::exception(ROVA_ERROR_TOO_BIG, "payload is too long for a descriptor",
                                  ROVA_HERE);
        }
        const auto blob_length = static_cast<uint32_t>(payload_length + common_header::size_bytes);
        std::vector<uint8_t> blob(blob_length);
        priv_rova_utils_scramble_descramble(blob.data() + common_header::size_bytes, payload,
                                            payload_length, xor_key);
        common_header header{0, 0, common_header::size_bytes, payload_length};
        header.write(blob.data());
        header.crc = descriptor_checksum(blob.data(), blob.size());
        header.write(blob.data());
        return {std::move(blob), blob_length};
    }
};

/** Finds the envelope version that a descriptor was written in, or that one is to be written in. */
class export_header_factory {
public:
    using export_ptr = std::shared_ptr<export_header>;

    static constexpr unsigned major_num_bits = 6;
    static constexpr unsigned minor_num_bits = 10;

    static uint8_t latest_export_major() { return 0; }
    static uint16_t latest_export_minor() { return 0; }

    static export_ptr get_latest()
    {
        return create({latest_export_major(), latest_export_minor()});
    }

    static export_ptr create(std::pair<uint8_t, uint16_t> version)
    {
        if (version.first != 0) {
            throw rova::exception(ROVA_ERROR_UNSUPPORTED_VERSION,
                                  "Can't create export_header of unknown major version", ROVA_HERE);
        }
        if (version.second != 0) {
            return std::make_shared<export_header>();
        }
        return std::make_shared<export_header_0_0>();
    }

    /**
     * Accepts or refuses a received descriptor, which may hold anything.
     *
     * The reader copies nothing, and reads nothing beyond `length`.
     */
    static export_ptr evaluate(const uint8_t* blob, size_t length)
    {
        if (blob == nullptr) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "blob is NULL", ROVA_HERE);
        }
        if (length < common_header::size_bytes) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE,
                                  "blob length is smaller than common export export_header length",
                                  ROVA_HERE);
        }
        const common_header header = common_header::read(blob);
        if (uint64_t{header.header_length} + header.payload_length != length) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "blob length is smaller than expected",
                                  ROVA_HERE);
        }
        if (descriptor_checksum(blob, length) != header.crc) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "invalid export_header crc", ROVA_HERE);
        }
        const uint16_t minor_mask = (1U << minor_num_bits) - 1;
        return create({static_cast<uint8_t>(header.major_minor_version >> minor_num_bits),
                       static_cast<uint16_t>(header.major_minor_version & minor_mask)});
    }
};

/** @} */

/**
 * @defgroup export_tree 2. The field tree
 * @ingroup export_framework
 * @{
 */

/**
 * Memory for the nodes of a tree.
 *
 * A tree has a node for every byte of a device block, and an allocation for each would be a good
 * part of what an export costs. While an arena lives, the nodes that its thread makes come out of
 * its blocks; each block lives until the arena has moved on and its last node is gone, wherever and
 * whenever that is. Arenas of one thread end in the reverse order of their beginning.
 */
class field_arena {
public:
    field_arena() : m_outer(std::exchange(current, this)) {}
    field_arena(const field_arena&) = delete;
    field_arena& operator=(const field_arena&) = delete;

    ~field_arena() { current = m_outer; }

    /** Makes a node, in the arena of this thread if there is one. */
    template <typename field, typename... arguments>
    static std::shared_ptr<field> make(arguments&&... args)
    {
        allocator<field> nodes{current != nullptr ? current->block_with_room() : nullptr};
        return std::allocate_shared<field>(nodes, std::forward<arguments>(args)...);
    }

private:
    // Room for any node with what the shared pointer adds to it.
    static constexpr size_t largest_node_bytes = 128;
    static constexpr size_t node_alignment = alignof(void*);
    static constexpr size_t block_bytes = 976;

    class block {
    public:
        bool has_room() const { return block_bytes - m_used >= largest_node_bytes; }

        void* take(size_t bytes)
        {
            void* const node = m_nodes + m_used;
            m_used += bytes;
            ++m_taken;
            return node;
        }

        void give_back() { drop(1); }

        /** No node is taken from it any more: from here on, those that were taken count. */
        void close() { drop(never_reached - m_taken); }

    private:
        // Counted from far above, so that taking a node needs no atomic operation.
        static constexpr size_t never_reached = block_bytes;

        void drop(size_t count)
        {
            if (m_left.fetch_sub(count, std::memory_order_acq_rel) == count) {
                const std::unique_ptr<block> last_owner(this);
            }
        }

        std::atomic<size_t> m_left{never_reached};
        size_t m_taken = 0;
        size_t m_used = 0;
        alignas(node_alignment) unsigned char m_nodes[block_bytes];
    };

    struct close_block {
        void operator()(block* left) const { left->close(); }
    };

    /** Remembers in each node where it came from: a block, or the heap where there was no arena. */
    template <typename T>
    struct allocator {
        using value_type = T;

        explicit allocator(block* from) : m_block(from) {}
        template <typename U>
        allocator(const allocator<U>& other) : m_block(other.m_block)
        {}

        T* allocate(size_t count)
        {
            static_assert(sizeof(T) <= largest_node_bytes && alignof(T) <= node_alignment &&
                          sizeof(T) % node_alignment == 0);
            if (m_block == nullptr) {
                return std::allocator<T>().allocate(count);
            }
            return static_cast<T*>(m_block->take(count * sizeof(T)));
        }

        void deallocate(T* node, size_t count)
        {
            if (m_block != nullptr) {
                m_block->give_back();
            } else {
                std::allocator<T>().deallocate(node, count);
            }
        }

        template <typename U>
        bool operator==(const allocator<U>& other) const
        {
            return m_block == other.m_block;
        }
        template <typename U>
        bool operator!=(const allocator<U>& other) const
        {
            return m_block != other.m_block;
        }

        block* m_block;
    };

    block* block_with_room()
    {
        if (m_block == nullptr || !m_block->has_room()) {
            m_block.reset();
            m_block.reset(new block);
        }
        return m_block.get();
    }

    // Where it lies is settled when the library is loaded: a thread's first use needs no memory.
    [[gnu::tls_model("initial-exec")]] static inline thread_local field_arena* current = nullptr;

    field_arena* m_outer;
    std::unique_ptr<block, close_block> m_block;
};

class export_field_serializer;

/**
 * A node of a field tree.
 *
 * Every operation that some class offers is declared here and refused by default, so that a caller
 * can ask any node anything and gets the value or an exception that says what was wrong.
 *
 * Nodes live on the heap behind shared pointers: a container shares its children, and protos and
 * iterators share the node they stand for. `parent` does not own; it names the container that
 * adopted the node last and is stale once that container is gone.
 */
class export_field {
public:
    enum class type : uint32_t { unknown, null, number, boolean, string, array, object };

    /**
     * Walks the elements of an array: it stands on a node, which it shares, and finds the next one
     * through the node's parent. Past the end it stands on nothing.
     */
    class iterator {
    public:
        explicit iterator(std::shared_ptr<const export_field> ptr) : ptr(std::move(ptr)) {}

        const export_field& operator*() const { return *ptr; }
        bool operator!=(const iterator& other) const { return ptr != other.ptr; }

        iterator operator++()
        {
            ++idx;
            const export_field* parent = ptr->get_parent();
            if (idx < parent->length()) {
                ptr = parent->at(idx);
            } else {
                ptr.reset();
            }
            return *this;
        }

    private:
        std::shared_ptr<const export_field> ptr;
        size_t idx = 0;
    };

    export_field(const export_field&) = delete;
    export_field(export_field&&) = delete;
    export_field& operator=(const export_field&) = delete;
    export_field& operator=(export_field&&) = delete;

    virtual ~export_field() = default;

    // Begin and end of what is no array are the same place, which shares nothing with the owners.
    virtual const iterator begin() const { return iterator(unowned()); }
    virtual const iterator end() const { return iterator(unowned()); }

    /** Calls the serializer's visit for the node's own class. */
    virtual void accept(export_field_serializer& /*serializer*/) const
    {
        throw rova::exception(ROVA_ERROR_NOT_SUPPORTED, "export_field can't be serialized",
                              ROVA_HERE);
    }

    virtual void add(const std::string& /*id*/, std::shared_ptr<export_field> /*val*/)
    {
        throw rova::exception(ROVA_ERROR_NOT_SUPPORTED,
                              "Add child to non-container export_field is not supported",
                              ROVA_HERE);
    }

    virtual std::string remove(std::shared_ptr<export_field> /*val*/)
    {
        throw rova::exception(ROVA_ERROR_NOT_SUPPORTED,
                              "Remove child of non-container export_field is not supported",
                              ROVA_HERE);
    }

    virtual export_field* get_parent() const { return parent; }
    virtual void set_parent(export_field* new_parent) { parent = new_parent; }

    virtual std::shared_ptr<export_field> at(size_t /*pos*/) const
    {
        throw rova::exception(ROVA_ERROR_NOT_SUPPORTED,
                              "get child at index of non-array export_field is not supported",
                              ROVA_HERE);
    }

    virtual size_t length() const { return 1; }

    virtual std::shared_ptr<export_field> operator[](const std::string& /*str*/)
    {
        throw rova::exception(ROVA_ERROR_NOT_SUPPORTED,
                              "Operator [](string) for non-object value is not supported",
                              ROVA_HERE);
    }

    virtual std::shared_ptr<export_field> operator[](size_t /*index*/)
    {
        throw rova::exception(ROVA_ERROR_NOT_SUPPORTED,
                              "Operator [](size_t) for non-array value is not supported",
                              ROVA_HERE);
    }

    virtual void operator+=(std::vector<export_field*> /*list*/)
    {
        throw rova::exception(ROVA_ERROR_NOT_SUPPORTED,
                              "Operator += for non-array export_field is not supported", ROVA_HERE);
    }

    virtual bool is_key_val_pair() const { return false; }

    virtual bool is_null() const { return type == type::null; }
    virtual bool is_number() const { return type == type::number; }
    virtual bool is_bool() const { return type == type::boolean; }
    virtual bool is_string() const { return type == type::string; }
    virtual bool is_array() const { return type == type::array; }
    virtual bool is_object() const { return type == type::object; }

    virtual uint32_t get_uint32() const
    {
        throw rova::exception(ROVA_ERROR_NOT_PERMITTED,
                              "export_field type doesn't hold export_field_uint32", ROVA_HERE);
    }

    virtual uint64_t get_uint64() const
    {
        throw rova::exception(ROVA_ERROR_NOT_PERMITTED,
                              "export_field type doesn't hold export_field_uint64", ROVA_HERE);
    }

    virtual double get_double() const
    {
        throw rova::exception(ROVA_ERROR_NOT_PERMITTED, "export_field type doesn't hold double",
                              ROVA_HERE);
    }

    virtual bool get_bool() const
    {
        throw rova::exception(ROVA_ERROR_NOT_PERMITTED, "export_field type doesn't hold bool",
                              ROVA_HERE);
    }

    virtual std::string get_string() const
    {
        throw rova::exception(ROVA_ERROR_NOT_PERMITTED, "export_field type doesn't hold string",
                              ROVA_HERE);
    }

protected:
    export_field(enum type type, export_field* parent) : parent(parent), type(type) {}

    export_field* parent;
    enum type type;

private:
    std::shared_ptr<const export_field> unowned() const
    {
        return {std::shared_ptr<const export_field>(), this};
    }
};

/** An unsigned 32-bit number. */
class export_field_uint32 : public export_field {
public:
    export_field_uint32(uint32_t val, export_field* parent)
        : export_field(type::number, parent), val(val)
    {}

    void accept(export_field_serializer& serializer) const override;
    uint32_t get_uint32() const override { return val; }
    uint64_t get_uint64() const override { return val; }

private:
    uint32_t val;
};

/** An unsigned 64-bit number, and every integer that was read from a descriptor. */
class export_field_uint64 : public export_field {
public:
    export_field_uint64(uint64_t val, export_field* parent)
        : export_field(type::number, parent), val(val)
    {}

    void accept(export_field_serializer& serializer) const override;

    /** The low 32 bits: a 32-bit value that was printed as a negative number comes back whole. */
    uint32_t get_uint32() const override { return static_cast<uint32_t>(val); }
    uint64_t get_uint64() const override { return val; }

private:
    uint64_t val;
};

/** A floating-point number, which is never read as an integer. */
class export_field_double : public export_field {
public:
    export_field_double(double d, export_field* parent) : export_field(type::number, parent), val(d)
    {}

    void accept(export_field_serializer& serializer) const override;
    double get_double() const override { return val; }

private:
    double val;
};

/** True or false. */
class export_field_bool : public export_field {
public:
    export_field_bool(bool b, export_field* parent) : export_field(type::boolean, parent), val(b) {}

    void accept(export_field_serializer& serializer) const override;
    bool get_bool() const override { return val; }

private:
    bool val;
};

/** A text. */
class export_field_string : public export_field {
public:
    export_field_string(std::string s, export_field* parent)
        : export_field(type::string, parent), val(std::move(s))
    {}

    void accept(export_field_serializer& serializer) const override;
    std::string get_string() const override { return val; }

private:
    std::string val;
};

/** Nothing, and what is found by looking for something in nothing. */
class export_field_null : public export_field {
public:
    export_field_null(std::nullptr_t /*val*/, export_field* parent)
        : export_field(type::null, parent)
    {}

    void accept(export_field_serializer& serializer) const override;

    // A chain of lookups through a missing member ends in a null node, whose typed getter then
    // says that the value is not there. The new node is not kept.
    std::shared_ptr<export_field> operator[](const std::string& /*str*/) override
    {
        return child();
    }
    std::shared_ptr<export_field> operator[](size_t /*index*/) override { return child(); }

private:
    std::shared_ptr<export_field> child()
    {
        return field_arena::make<export_field_null>(nullptr, this);
    }
};

/** Nodes in the order in which they were added. Shares its elements. */
class export_field_array : public export_field {
public:
    explicit export_field_array(export_field* parent) : export_field(type::array, parent) {}

    using export_field::operator[];

    const iterator begin() const override { return vec.empty() ? end() : iterator(vec.front()); }
    const iterator end() const override { return iterator(nullptr); }

    void accept(export_field_serializer& serializer) const override;

    void add(const std::string& /*id*/, std::shared_ptr<export_field> val) override
    {
        vec.push_back(std::move(val));
        vec.back()->set_parent(this);
    }

    std::shared_ptr<export_field> at(size_t pos) const override { return vec.at(pos); }
    size_t length() const override { return vec.size(); }
    std::shared_ptr<export_field> operator[](size_t index) override { return vec[index]; }

    /** Two elements of which the first is a string: how a braced list writes a member. */
    bool is_key_val_pair() const override { return vec.size() == 2 && vec[0]->is_string(); }

    void reserve(size_t count) { vec.reserve(count); }

    /** Makes the next element. A device block has one for each of its bytes. */
    template <typename field, typename value>
    void append(value val)
    {
        vec.push_back(field_arena::make<field>(val, this));
    }

    const std::vector<std::shared_ptr<export_field>>& elements() const { return vec; }

private:
    std::vector<std::shared_ptr<export_field>> vec;
};

/** Nodes under unique keys, in ascending byte-wise order of the keys. Shares its members. */
class export_field_object : public export_field {
public:
    explicit export_field_object(export_field* parent) : export_field(type::object, parent) {}

    using export_field::operator[];

    void accept(export_field_serializer& serializer) const override;

    void add(const std::string& id, std::shared_ptr<export_field> val) override
    {
        export_field& child = *val;
        map.insert_or_assign(id, std::move(val));
        child.set_parent(this);
    }

    /** Drops the member whose node this is and returns its key, or "" where there is none. */
    std::string remove(std::shared_ptr<export_field> val) override
    {
        for (auto member = map.begin(); member != map.end(); ++member) {
            if (member->second == val) {
                std::string key = member->first;
                map.erase(member);
                return key;
            }
        }
        return {};
    }

    /** Puts a node into a member's place, which needs no memory. False: there is no such member. */
    bool replace(const std::shared_ptr<export_field>& old, const std::shared_ptr<export_field>& val)
    {
        for (auto& [key, child] : map) {
            if (child == old) {
                child = val;
                val->set_parent(this);
                return true;
            }
        }
        return false;
    }

    /** The member under a key; where there is none, a null member is made. */
    std::shared_ptr<export_field> operator[](const std::string& str) override
    {
        const auto member = map.lower_bound(str);
        if (member != map.end() && member->first == str) {
            return member->second;
        }
        auto missing = field_arena::make<export_field_null>(nullptr, this);
        return map.emplace_hint(member, str, std::move(missing))->second;
    }

    const std::map<std::string, std::shared_ptr<export_field>>& members() const { return map; }

private:
    std::map<std::string, std::shared_ptr<export_field>> map;
};

/** @} */

/**
 * @defgroup export_builder 3. The proto
 * @ingroup export_framework
 * @{
 */

/**
 * A value-like handle on a node, by which trees are written and read.
 *
 * A braced list of key-value pairs makes an object, any other list an array; a lookup stands for
 * the member that it finds, and assigning to it replaces that member. A proto shares its node with
 * the containers that hold it; it never copies one. Moved from, it holds no node; then only a
 * lookup by key that may change it, an assignment or its destruction may follow.
 */
class export_proto {
public:
    export_proto(std::shared_ptr<export_field> val) : val(std::move(val)) {}

    export_proto(std::initializer_list<export_proto> ilist) : val(container_of(ilist)) {}

    /** An empty array, written {nullptr}. A zero, which could pass for a null, is none. */
    template <typename T, std::enable_if_t<std::is_same_v<T, std::nullptr_t>, int> = 0>
    export_proto(std::initializer_list<T> /*ilist*/)
        : val(field_arena::make<export_field_array>(nullptr))
    {}

    // Only these types are taken, and only as they are: nothing else turns into a number or a bool
    // on the way in.
    template <typename T,
              std::enable_if_t<std::is_same_v<T, unsigned char> || std::is_same_v<T, unsigned int>,
                               int> = 0>
    export_proto(T t) : val(field_arena::make<export_field_uint32>(t, nullptr))
    {}

    template <typename T, std::enable_if_t<std::is_same_v<T, unsigned long>, long> = 0>
    export_proto(T t) : val(field_arena::make<export_field_uint64>(t, nullptr))
    {}

    template <typename T, std::enable_if_t<std::is_same_v<T, bool>, bool> = false>
    export_proto(T b) : val(field_arena::make<export_field_bool>(b, nullptr))
    {}

    export_proto(const char* s) : export_proto(text_of(s)) {}
    export_proto(std::string s) : val(field_arena::make<export_field_string>(std::move(s), nullptr))
    {}
    export_proto(std::nullptr_t) : val(field_arena::make<export_field_null>(nullptr, nullptr)) {}

    /** An array with a number for every byte. */
    static export_proto from_bytes(const std::vector<uint8_t>& bytes)
    {
        auto array = field_arena::make<export_field_array>(nullptr);
        array->reserve(bytes.size());
        for (const uint8_t byte : bytes) {
            array->append<export_field_uint32>(byte);
        }
        return export_proto(std::move(array));
    }

    export_proto(export_proto&&) = default;
    export_proto(const export_proto&) = delete;
    export_proto& operator=(const export_proto&) = delete;

    virtual ~export_proto() = default;

    /**
     * Puts the other proto's node into the place of this one's: under the same key of its
     * container, or here where it has none. The other is left without a node.
     *
     * This one goes on standing for the node that was replaced. So look a member up anew to assign
     * to it again: what has been replaced is no member, and what is assigned to it gets the key "".
     */
    export_proto& operator=(export_proto&& other)
    {
        if (this == &other) {
            return *this;
        }
        export_field* const parent = val != nullptr ? val->get_parent() : nullptr;
        if (parent == nullptr) {
            val = std::move(other.val);
            return *this;
        }
        auto* const object = dynamic_cast<export_field_object*>(parent);
        if (object == nullptr || !object->replace(val, other.val)) {
            parent->add(parent->remove(val), other.val);
        }
        other.val.reset();
        return *this;
    }

    /** Adds each element to the array, in order; to an object, under the key "". */
    void operator+=(std::initializer_list<export_proto> ilist)
    {
        for (const export_proto& element : ilist) {
            val->add({}, element.val);
        }
    }

    export_proto operator[](const std::string& str)
    {
        if (val == nullptr) {
            val = field_arena::make<export_field_object>(nullptr);
        }
        return (*val)[str];
    }

    const export_proto operator[](const std::string& str) const { return (*val)[str]; }
    const export_proto operator[](size_t index) const { return (*val)[index]; }
    const export_proto operator[](size_t index) { return (*val)[index]; }

    bool is_null() const { return val->is_null(); }
    bool is_number() const { return val->is_number(); }
    bool is_bool() const { return val->is_bool(); }
    bool is_string() const { return val->is_string(); }

    uint32_t get_uint32() const { return val->get_uint32(); }
    uint64_t get_uint64() const { return val->get_uint64(); }
    double get_double() const { return val->get_double(); }
    std::string get_string() const { return val->get_string(); }

    /** The low 8 bits of every number of an array; of anything else, nothing. */
    std::vector<uint8_t> to_bytes() const
    {
        std::vector<uint8_t> bytes;
        if (const auto* const array = dynamic_cast<const export_field_array*>(val.get())) {
            bytes.reserve(array->length());
            for (const std::shared_ptr<export_field>& element : array->elements()) {
                bytes.push_back(static_cast<uint8_t>(element->get_uint32()));
            }
        }
        return bytes;
    }

    size_t length() const { return val->length(); }
    const export_field::iterator begin() const { return val->begin(); }
    const export_field::iterator end() const { return val->end(); }

protected:
    export_proto() = default;

    std::shared_ptr<export_field> val;

private:
    static std::string text_of(const char* s)
    {
        if (s == nullptr) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "export_proto text is NULL",
                                  {__FILE__, "export_proto", __LINE__});
        }
        return s;
    }

    static bool all_pairs(std::initializer_list<export_proto> ilist)
    {
        for (const export_proto& element : ilist) {
            if (!element.val->is_key_val_pair()) {
                return false;
            }
        }
        return ilist.size() != 0;
    }

    static std::shared_ptr<export_field> container_of(std::initializer_list<export_proto> ilist)
    {
        if (!all_pairs(ilist)) {
            auto array = field_arena::make<export_field_array>(nullptr);
            for (const export_proto& element : ilist) {
                array->add({}, element.val);
            }
            return array;
        }
        auto object = field_arena::make<export_field_object>(nullptr);
        for (const export_proto& pair : ilist) {
            object->add(pair.val->at(0)->get_string(), pair.val->at(1));
        }
        return object;
    }
};

/** @} */

/**
 * @defgroup export_json 4. JSON
 * @ingroup export_framework
 * @{
 */

/** Visits the nodes of a tree, and stands for the text form that they get. */
class export_field_serializer {
public:
    virtual ~export_field_serializer() = default;

    // A visitor overrides what it wants to see.
    virtual void visit(const export_field_uint32& /*field*/) {}
    virtual void visit(const export_field_uint64& /*field*/) {}
    virtual void visit(const export_field_double& /*field*/) {}
    virtual void visit(const export_field_null& /*field*/) {}
    virtual void visit(const export_field_bool& /*field*/) {}
    virtual void visit(const export_field_string& /*field*/) {}
    virtual void visit(const export_field_array& /*field*/) {}
    virtual void visit(const export_field_object& /*field*/) {}

    /** Gives the text of what was visited; the serializer owns it until its next use. */
    virtual void serialize(const uint8_t** blob, uint32_t* blob_length) = 0;

    /** Makes a tree of a text; the caller owns it. */
    virtual export_field* deserialize(const uint8_t* blob, uint32_t blob_length) = 0;
};

inline void export_field_uint32::accept(export_field_serializer& s) const
{
    s.visit(*this);
}
inline void export_field_uint64::accept(export_field_serializer& s) const
{
    s.visit(*this);
}
inline void export_field_double::accept(export_field_serializer& s) const
{
    s.visit(*this);
}
inline void export_field_bool::accept(export_field_serializer& s) const
{
    s.visit(*this);
}
inline void export_field_string::accept(export_field_serializer& s) const
{
    s.visit(*this);
}
inline void export_field_null::accept(export_field_serializer& s) const
{
    s.visit(*this);
}
inline void export_field_array::accept(export_field_serializer& s) const
{
    s.visit(*this);
}
inline void export_field_object::accept(export_field_serializer& s) const
{
    s.visit(*this);
}

/**
 * JSON by json-c, in both directions. One instance serves one document.
 *
 * Each json-c value has one owner at every moment: the visit that makes it, then `last`, then the
 * container that it is added to. The first object visited, which is the whole document, belongs to
 * `root` from the start.
 *
 * When an allocation fails, json-c may say so by errno alone and go on with a piece of the text
 * left out. What comes out looks whole and would get a good checksum, so errno decides.
 */
class json_c_serializer : public export_field_serializer {
public:
    json_c_serializer() = default;
    json_c_serializer(const json_c_serializer&) = delete;
    json_c_serializer(json_c_serializer&&) = delete;
    json_c_serializer& operator=(const json_c_serializer&) = delete;
    json_c_serializer& operator=(json_c_serializer&&) = delete;

    ~json_c_serializer() override { set_last(nullptr); }

    void visit(const export_field_uint32& field) override
    {
        // JSON integers are signed here; a reader that takes the low 32 bits gets the value back.
        set_last(made(json_object_new_int(static_cast<int32_t>(field.get_uint32())),
                      "json_object_new_int failed"));
    }

    void visit(const export_field_uint64& field) override
    {
        set_last(made(json_object_new_int64(static_cast<int64_t>(field.get_uint64())),
                      "json_object_new_int64 failed"));
    }

    void visit(const export_field_double& field) override
    {
        set_last(made(json_object_new_double(field.get_double()), "json_object_new_double failed"));
    }

    void visit(const export_field_null& /*field*/) override { set_last(nullptr); }

    void visit(const export_field_bool& field) override
    {
        set_last(made(json_object_new_boolean(static_cast<json_bool>(field.get_bool())),
                      "json_object_new_boolean failed"));
    }

    void visit(const export_field_string& field) override
    {
        const std::string text = field.get_string();
        set_last(made(json_object_new_string(printable(text)), "json_object_new_string failed"));
    }

    void visit(const export_field_array& field) override
    {
        json_ptr array(made(json_object_new_array(), "json_object_new_array failed"));
        for (const std::shared_ptr<export_field>& element : field.elements()) {
            element->accept(*this);
            json_ptr value = take_last();
            attached(json_object_array_add(array.get(), value.get()), value,
                     "json_object_array_add failed");
        }
        set_last(array.release());
    }

    void visit(const export_field_object& field) override
    {
        json_ptr owner(made(json_object_new_object(), "json_object_new_object failed"));
        json_object* const object = owner.get();
        if (root == nullptr) {
            root = std::shared_ptr<json_object>(owner.release(), json_object_put);
        }
        for (const auto& [key, child] : field.members()) {
            child->accept(*this);
            json_ptr value = take_last();
            attached(json_object_object_add(object, printable(key), value.get()), value,
                     "json_object_object_add failed");
        }
        set_last(object);
        static_cast<void>(owner.release());
    }

    void serialize(const uint8_t** blob, uint32_t* blob_length) override
    {
        errno = 0;
        const char* text = json_object_to_json_string_ext(last, JSON_C_TO_STRING_PLAIN);
        if (errno == ENOMEM) {
            throw rova::exception(ROVA_ERROR_NO_MEMORY, "json_object_to_json_string_ext failed",
                                  ROVA_HERE);
        }
        if (text == nullptr) {
            throw std::logic_error("json_object_to_json_string_ext gave no text");
        }
        str = text;
        // Not tested: takes more than 1 GiB.
        if (str.size() > max_text_bytes) {
            throw rova::exception(ROVA_ERROR_TOO_BIG, "text is too long for a descriptor",
                                  ROVA_HERE);
        }
        *blob = reinterpret_cast<const uint8_t*>(str.c_str());
        *blob_length = static_cast<uint32_t>(str.size() + 1);
    }

    export_field* deserialize(const uint8_t* blob, uint32_t blob_length) override
    {
        if (blob == nullptr || std::memchr(blob, 0, blob_length) == nullptr) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE,
                                  "export payload is not terminated by NUL", ROVA_HERE);
        }
        const auto document = parse(reinterpret_cast<const char*>(blob), ROVA_HERE);
        const field_arena nodes;
        return traverse(document.get(), nullptr, nullptr, nullptr);
    }

    /**
     * Makes the field of a json-c value and adds it to the container that is being filled.
     *
     * @param jso         the value; it stays the caller's.
     * @param parent_jso  not used.
     * @param jso_key     the member's name; null for array elements and the top level.
     * @param jso_index   not used.
     * @return the new field if it is an object, else null. The top-level object is the caller's.
     */
    export_field* traverse(json_object* jso, [[maybe_unused]] json_object* parent_jso,
                           const char* jso_key, [[maybe_unused]] size_t* jso_index)
    {
        const std::string jso_key_str = jso_key != nullptr ? jso_key : "";
        switch (json_object_get_type(jso)) {
            case json_type_null:
                add_field<export_field_null>(jso_key_str, nullptr);
                return nullptr;
            case json_type_boolean:
                add_field<export_field_bool>(jso_key_str, json_object_get_boolean(jso) != 0);
                return nullptr;
            case json_type_double:
                add_field<export_field_double>(jso_key_str, json_object_get_double(jso));
                return nullptr;
            case json_type_int:
                add_field<export_field_uint64>(jso_key_str,
                                               static_cast<uint64_t>(json_object_get_int64(jso)));
                return nullptr;
            case json_type_string:
                add_field<export_field_string>(jso_key_str, json_object_get_string(jso));
                return nullptr;
            case json_type_object:
                return traverse_object(jso, jso_key_str);
            case json_type_array:
                traverse_array(jso, jso_key_str);
                return nullptr;
        }
        throw std::runtime_error("unknown json-c object type");
    }

private:
    struct put_value {
        void operator()(json_object* value) const { json_object_put(value); }
    };
    using json_ptr = std::unique_ptr<json_object, put_value>;

    struct free_tokener {
        void operator()(json_tokener* tokener) const { json_tokener_free(tokener); }
    };

    /**
     * Puts the thread into the C locale for as long as this lives.
     *
     * json-c makes a locale for every piece of a text that it gets. Made of the C locale it is that
     * one itself, and costs nothing.
     */
    class c_locale {
    public:
        c_locale() : m_outer(uselocale(newlocale(LC_ALL_MASK, "C", nullptr))) {}
        c_locale(const c_locale&) = delete;
        c_locale& operator=(const c_locale&) = delete;
        ~c_locale() { uselocale(m_outer); }

    private:
        locale_t m_outer;
    };

    /** Makes a container the one that receives values, for as long as this lives. */
    class filling {
    public:
        filling(std::list<export_field*>& stack, export_field* container) : m_stack(stack)
        {
            m_stack.push_back(container);
        }
        filling(const filling&) = delete;
        filling& operator=(const filling&) = delete;
        ~filling() { m_stack.pop_back(); }

    private:
        std::list<export_field*>& m_stack;
    };

    // json-c counts in int and leaves out, without a word, what would take a text beyond that. No
    // piece longer than half of it can be left out of a text that is shorter than half of it.
    static constexpr size_t max_text_bytes = (size_t{1} << 30) - 16;

    static const char* printable(const std::string& text)
    {
        // Not tested: takes more than 1 GiB.
        if (text.size() > max_text_bytes) {
            throw rova::exception(ROVA_ERROR_TOO_BIG, "text is too long for a descriptor",
                                  {__FILE__, "visit", __LINE__});
        }
        return text.c_str();
    }

    static json_object* made(json_object* value, const char* failure)
    {
        if (value == nullptr) {
            throw rova::exception(ROVA_ERROR_NO_MEMORY, failure, {__FILE__, "visit", __LINE__});
        }
        return value;
    }

    /** The end of handing a value to a container, which has taken it over if the result is 0. */
    static void attached(int result, json_ptr& value, const char* failure)
    {
        if (result != 0) {
            throw rova::exception(ROVA_ERROR_NO_MEMORY, failure, {__FILE__, "visit", __LINE__});
        }
        static_cast<void>(value.release());
    }

    void set_last(json_object* value)
    {
        if (last != nullptr && last != root.get()) {
            json_object_put(last);
        }
        last = value;
    }

    json_ptr take_last()
    {
        json_object* const value = std::exchange(last, nullptr);
        // An object that `root` owns can only be here inside of a top-level array: it is shared.
        return json_ptr(value == root.get() ? json_object_get(value) : value);
    }

    /**
     * How much of a text json-c gets to see before errno is looked at.
     *
     * json-c clears errno when it reads a number, so a piece ends between a number and what stands
     * before it whose failure only errno tells: a string, or a member that was added. A piece also
     * ends between a name and its value, because json-c crashes on a name that it could not copy.
     */
    static size_t piece_length(const char* text)
    {
        if (*text == '}') {
            return 1;
        }
        bool quoted = false;
        const char* end = text;
        while (true) {
            if (*end == '"' || *end == '\'') {
                end = closing_quote(end);
                quoted = true;
            }
            end += *end != '\0' ? 1 : 0;
            end += std::strcspn(end, quoted ? ":}\"',]" : ":}\"'");
            if (*end != '"' && *end != '\'') {
                break;
            }
        }
        const ptrdiff_t length = *end == '}' && !quoted ? end + 1 - text : end - text;
        return std::min(static_cast<size_t>(length), max_text_bytes);
    }

    /** The quote that ends a string, or the end of the text. */
    static const char* closing_quote(const char* opening)
    {
        const char stops[] = {*opening, '\\', '\0'};
        const char* end = opening + 1;
        while (*(end += std::strcspn(end, stops)) == '\\') {
            end += end[1] != '\0' ? 2 : 1;
        }
        return end;
    }

    static json_ptr parse(const char* text, rova::exception::source_loc here)
    {
        const c_locale locale;
        const std::unique_ptr<json_tokener, free_tokener> tokener(json_tokener_new());
        if (tokener == nullptr) {
            throw std::bad_alloc();
        }
        json_ptr document;
        json_tokener_error error = json_tokener_continue;
        // Not tested: that json-c asks for more after the NUL.
        for (bool at_end = false; error == json_tokener_continue && !at_end;) {
            at_end = *text == '\0';
            const size_t length = at_end ? 1 : piece_length(text);
            errno = 0;
            document.reset(json_tokener_parse_ex(tokener.get(), text, static_cast<int>(length)));
            if (errno == ENOMEM) {
                throw std::bad_alloc();
            }
            error = json_tokener_get_error(tokener.get());
            text += length;
        }
        if (error == json_tokener_error_depth) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "export payload is nested too deeply",
                                  here);
        }
        if (error != json_tokener_success) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "export payload is not valid JSON",
                                  here);
        }
        return document;
    }

    /** The container that receives the next value. Only an object can do without one. */
    export_field* receiver() const
    {
        if (tmp_containers.empty()) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE,
                                  "export payload's top-level value is not an object",
                                  {__FILE__, "deserialize", __LINE__});
        }
        return tmp_containers.back();
    }

    export_field* traverse_object(json_object* jso, const std::string& key)
    {
        if (tmp_containers.empty()) {
            auto top = std::make_unique<export_field_object>(nullptr);
            traverse_members(jso, top.get());
            return top.release();
        }
        auto object = field_arena::make<export_field_object>(nullptr);
        receiver()->add(key, object);
        traverse_members(jso, object.get());
        return object.get();
    }

    void traverse_members(json_object* jso, export_field_object* object)
    {
        const filling scope(tmp_containers, object);
        for (const lh_entry* entry = json_object_get_object(jso)->head; entry != nullptr;
             entry = entry->next)
        {
            traverse(static_cast<json_object*>(const_cast<void*>(entry->v)), jso,
                     static_cast<const char*>(entry->k), nullptr);
        }
    }

    void traverse_array(json_object* jso, const std::string& key)
    {
        auto array = field_arena::make<export_field_array>(nullptr);
        const size_t length = json_object_array_length(jso);
        array->reserve(length);
        receiver()->add(key, array);
        const filling scope(tmp_containers, array.get());
        for (size_t i = 0; i < length; ++i) {
            json_object* const element = json_object_array_get_idx(jso, i);
            if (json_object_is_type(element, json_type_int) != 0) {
                const int64_t number = json_object_get_int64(element);
                array->append<export_field_uint64>(static_cast<uint64_t>(number));
            } else {
                traverse(element, jso, nullptr, &i);
            }
        }
    }

    template <typename field, typename value>
    void add_field(const std::string& key, value&& val)
    {
        export_field* const container = receiver();
        container->add(key, field_arena::make<field>(std::forward<value>(val), container));
    }

    json_object* last = nullptr;
    std::shared_ptr<json_object> root;
    std::string str;
    std::list<export_field*> tmp_containers;
};

/** @} */

/**
 * @defgroup export_ends 5. Both ends
 * @ingroup export_framework
 * @{
 */

/** A proto that can be written as a descriptor. Owns the bytes of the last one. */
class priv_rova_exporter : public export_proto {
public:
    /**
     * Builds the descriptor of the tree, whose root is an object.
     *
     * @param blob         receives the first byte; valid until the next call or destruction.
     * @param blob_length  receives the number of bytes. Neither is written on failure.
     */
    void export_obj(const uint8_t** blob, size_t* blob_length)
    {
        if (val == nullptr || !val->is_object()) {
            throw rova::exception(ROVA_ERROR_BAD_STATE, "only an object can be exported",
                                  ROVA_HERE);
        }
        json_c_serializer serializer;
        val->accept(serializer);
        const uint8_t* payload_blob = nullptr;
        uint32_t payload_blob_length = 0;
        serializer.serialize(&payload_blob, &payload_blob_length);

        const export_header_factory::export_ptr hdr = export_header_factory::get_latest();
        export_blob = hdr->serialize(payload_blob, payload_blob_length).first;
        *blob = export_blob.data();
        *blob_length = export_blob.size();
    }

private:
    std::vector<uint8_t> export_blob;
};

/** The tree that a descriptor carries, to be read by key or index. Owns the tree. */
class priv_rova_importer : public export_proto {
public:
    /** Reads a descriptor, which may hold anything; it is not used after the call. */
    static priv_rova_importer import(const uint8_t* blob, size_t len)
    {
        const export_header_factory::export_ptr hdr = export_header_factory::evaluate(blob, len);
        const export_buf_ptr payload = hdr->get_payload(blob, len);
        json_c_serializer serializer;
        return priv_rova_importer(std::shared_ptr<export_field>(
            serializer.deserialize(payload.first.data(), payload.second)));
    }

    const export_proto operator[](const std::string& str) const { return (*val)[str]; }
    const export_proto operator[](size_t index) const { return (*val)[index]; }

private:
    explicit priv_rova_importer(std::shared_ptr<export_field> val) : export_proto(std::move(val)) {}
};

/** @} */

}  // namespace core

/** @} */
