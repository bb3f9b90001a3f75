/**
 * @file
 * @defgroup export_framework Export framework (priv_rova_export.hpp)
 *
 * The export framework: how a component describes an object to another process.
 *
 * An object is described as a tree of typed fields, which is printed as JSON and wrapped in an
 * envelope; the bytes that come out are the export descriptor. Reading reverses these steps.
 * From the bytes up, this header holds
 *
 *   1. the envelope:    export_header, export_header_0_0, export_header_factory
 *   2. the field tree:  export_field and its eight classes
 *   3. the proto:       export_proto, the way to write and read a tree
 *   4. JSON:            json_c_serializer, a tree to text and text to a tree
 *   5. both ends:       priv_rova_exporter, priv_rova_importer
 *
 * Failures are thrown. Nothing in this header catches them; the exported functions of the component
 * do. When the framework refuses something, it throws a rova::exception with a code and the place.
 * It lets std::bad_alloc pass, and std::out_of_range from an array's `at`. It throws a
 * std::logic_error when json-c gives no text, and a std::runtime_error for a type of value that
 * json-c does not define.
 * Objects are used by one thread at a time, and separate trees are independent; a node may be
 * released by another thread than the one that made it.
 *
 * @{
 */
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include <json-c/json.h>

#include "priv_rova_export_bytes.hpp"
#include "priv_rova_export_json_c.hpp"
#include "priv_rova_export_members.hpp"
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

/**
 * An envelope version whose major number is known and whose minor is not: its payload can be read,
 * but it cannot be written. It has no state.
 */
class export_header {
public:
    /** The key that the first byte is scrambled with. It is the same in every process. */
    static constexpr char xor_key = scrambling_key;

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

    /** Puts a payload into a descriptor; for this class always refused. */
    virtual export_buf_ptr serialize(const uint8_t* /*payload*/, uint32_t /*payload_length*/)
    {
        throw rova::exception(ROVA_ERROR_UNSUPPORTED_VERSION,
                              "can't serialize unknown export_header", ROVA_HERE);
    }
};

/** Envelope version 0.0, the one that is written. It has no state. */
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

/** Makes the envelope of a version: that of a received descriptor, or the one to write. */
class export_header_factory {
public:
    using export_ptr = std::shared_ptr<export_header>;

    static constexpr unsigned major_num_bits = common_header::major_num_bits;
    static constexpr unsigned minor_num_bits = common_header::minor_num_bits;

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
     * Accepts or refuses a received descriptor, which may hold any bytes. Copies nothing, and reads
     * nothing beyond `length`.
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
        if (header.descriptor_length() != length) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "blob length is smaller than expected",
                                  ROVA_HERE);
        }
        if (descriptor_checksum(blob, length) != header.crc) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE, "invalid export_header crc", ROVA_HERE);
        }
        return create({header.major_version(), header.minor_version()});
    }
};

/** @} */

/**
 * @defgroup export_tree 2. The field tree
 * @ingroup export_framework
 * @{
 */

class export_field;
class export_field_uint32;
class export_field_uint64;
class export_field_double;
class export_field_null;
class export_field_bool;
class export_field_string;
class export_field_array;
class export_field_object;

/** Turns a tree into text by visiting its nodes, and text into a tree. */
class export_field_serializer {
public:
    virtual ~export_field_serializer() = default;

    virtual void visit(const export_field_uint32& /*field*/) {}
    virtual void visit(const export_field_uint64& /*field*/) {}
    virtual void visit(const export_field_double& /*field*/) {}
    virtual void visit(const export_field_null& /*field*/) {}
    virtual void visit(const export_field_bool& /*field*/) {}
    virtual void visit(const export_field_string& /*field*/) {}
    virtual void visit(const export_field_array& /*field*/) {}
    virtual void visit(const export_field_object& /*field*/) {}

    /** Gives the text of the visited tree, which is valid until the serializer is used again. */
    virtual void serialize(const uint8_t** blob, uint32_t* blob_length) = 0;

    /** Parses a text into a tree, which the caller owns. */
    virtual export_field* deserialize(const uint8_t* blob, uint32_t blob_length) = 0;
};

/**
 * A node of a field tree.
 *
 * Every operation of any derived class is declared here and refused by default. So a caller can
 * apply each operation to each node, and gets the result or an exception that says what was wrong.
 *
 * Nodes live on the heap behind shared pointers: a container shares its children, and protos and
 * iterators share the node they stand for. `parent` does not own; it names the container that
 * adopted the node last and is stale once that container is gone.
 */
class export_field {
public:
    enum class type : uint32_t { unknown, null, number, boolean, string, array, object };

    /**
     * Iterates over an array. It shares the current node, and finds the next one through the node's
     * parent. Past the end it has no node.
     */
    class iterator {
    public:
        explicit iterator(std::shared_ptr<const export_field> node) : ptr(std::move(node)) {}

        const export_field& operator*() const { return *ptr; }
        bool operator!=(const iterator& other) const { return ptr != other.ptr; }

        iterator operator++()
        {
            ++idx;
            const export_field* const container = ptr->get_parent();
            if (idx < container->length()) {
                ptr = container->at(idx);
            } else {
                ptr.reset();
            }
            return *this;
        }

    private:
        std::shared_ptr<const export_field> ptr;
        size_t idx = 0;
    };

    // Nodes are neither copied nor moved, those of derived classes included.
    export_field(const export_field&) = delete;
    export_field& operator=(const export_field&) = delete;

    virtual ~export_field() = default;

    // A node that is not an array has nothing to iterate over: begin equals end.
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
    virtual void set_parent(export_field* container) { parent = container; }

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
    export_field(enum type tag, export_field* container) : parent(container), type(tag) {}

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
    export_field_uint32(uint32_t number, export_field* container)
        : export_field(type::number, container), val(number)
    {}

    void accept(export_field_serializer& s) const override { s.visit(*this); }
    uint32_t get_uint32() const override { return val; }
    uint64_t get_uint64() const override { return val; }

private:
    uint32_t val;
};

/** An unsigned 64-bit number, and every integer that was read from a descriptor. */
class export_field_uint64 : public export_field {
public:
    export_field_uint64(uint64_t number, export_field* container)
        : export_field(type::number, container), val(number)
    {}

    void accept(export_field_serializer& s) const override { s.visit(*this); }

    /** The low 32 bits: a 32-bit value that was printed as a negative number is unchanged. */
    uint32_t get_uint32() const override { return static_cast<uint32_t>(val); }
    uint64_t get_uint64() const override { return val; }

private:
    uint64_t val;
};

/** A floating-point number, which is never read as an integer. */
class export_field_double : public export_field {
public:
    export_field_double(double d, export_field* container)
        : export_field(type::number, container), val(d)
    {}

    void accept(export_field_serializer& s) const override { s.visit(*this); }
    double get_double() const override { return val; }

private:
    double val;
};

/** True or false. */
class export_field_bool : public export_field {
public:
    export_field_bool(bool b, export_field* container)
        : export_field(type::boolean, container), val(b)
    {}

    void accept(export_field_serializer& s) const override { s.visit(*this); }
    bool get_bool() const override { return val; }

private:
    bool val;
};

/** A text. */
class export_field_string : public export_field {
public:
    export_field_string(std::string s, export_field* container)
        : export_field(type::string, container), val(std::move(s))
    {}

    void accept(export_field_serializer& s) const override { s.visit(*this); }
    std::string get_string() const override { return val; }

private:
    std::string val;
};

/** A null value. A lookup in it gives another null value. */
class export_field_null : public export_field {
public:
    export_field_null(std::nullptr_t /*val*/, export_field* container)
        : export_field(type::null, container)
    {}

    void accept(export_field_serializer& s) const override { s.visit(*this); }

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
        return std::make_shared<export_field_null>(nullptr, this);
    }
};

/**
 * Nodes in the order in which they were added. Shares its elements.
 *
 * An array made from bytes stores only the bytes. The first access to an element, or an addition,
 * turns all of them into nodes for good. A device block is written and read without that.
 */
class export_field_array : public export_field {
public:
    /** The class of the nodes that stand for bytes. */
    enum class byte_class { uint32, uint64 };

    explicit export_field_array(export_field* container) : export_field(type::array, container) {}

    export_field_array(std::vector<uint8_t> numbers, byte_class node_class, export_field* container)
        : export_field(type::array, container), bytes(std::move(numbers)), bytes_are(node_class)
    {}

    using export_field::operator[];

    const iterator begin() const override
    {
        return elements().empty() ? end() : iterator(vec.front());
    }
    const iterator end() const override { return iterator(nullptr); }

    void accept(export_field_serializer& s) const override { s.visit(*this); }

    void add(const std::string& /*id*/, std::shared_ptr<export_field> val) override
    {
        make_nodes();
        vec.push_back(std::move(val));
        vec.back()->set_parent(this);
    }

    std::shared_ptr<export_field> at(size_t pos) const override { return elements().at(pos); }
    size_t length() const override { return bytes.size() + vec.size(); }
    std::shared_ptr<export_field> operator[](size_t index) override { return elements()[index]; }

    /** Whether this stands for a member in a braced list: two elements, the first a string. */
    bool is_key_val_pair() const override { return vec.size() == 2 && vec[0]->is_string(); }

    const std::vector<std::shared_ptr<export_field>>& elements() const
    {
        make_nodes();
        return vec;
    }

    /** The elements, if they are stored as bytes; otherwise empty. */
    const std::vector<uint8_t>& kept_bytes() const { return bytes; }
    byte_class kept_bytes_are() const { return bytes_are; }

private:
    void make_nodes() const
    {
        if (bytes.empty()) {
            return;
        }
        auto* const container = const_cast<export_field_array*>(this);
        std::vector<std::shared_ptr<export_field>> nodes;
        nodes.reserve(bytes.size());
        for (const uint8_t byte : bytes) {
            if (bytes_are == byte_class::uint32) {
                nodes.push_back(std::make_shared<export_field_uint32>(byte, container));
            } else {
                nodes.push_back(std::make_shared<export_field_uint64>(byte, container));
            }
        }
        vec = std::move(nodes);
        bytes = {};
    }

    // At least one of these two is empty.
    mutable std::vector<std::shared_ptr<export_field>> vec;
    mutable std::vector<uint8_t> bytes;
    byte_class bytes_are = byte_class::uint32;
};

/** Nodes under unique keys, in ascending byte-wise order of the keys. Shares its members. */
class export_field_object : public export_field {
public:
    explicit export_field_object(export_field* container) : export_field(type::object, container) {}

    using export_field::operator[];

    void accept(export_field_serializer& s) const override { s.visit(*this); }

    void add(const std::string& id, std::shared_ptr<export_field> val) override
    {
        export_field& child = *val;
        map[id] = std::move(val);
        child.set_parent(this);
    }

    /** Removes the member that holds this node. Returns its key, or "" if there is none. */
    std::string remove(std::shared_ptr<export_field> val) override { return map.remove(val); }

    /** Replaces a member's node without allocating. Returns false if there is no such member. */
    bool replace(const std::shared_ptr<export_field>& old, const std::shared_ptr<export_field>& val)
    {
        const bool done = map.replace(old, val);
        if (done) {
            val->set_parent(this);
        }
        return done;
    }

    /** The member under a key. If there is none, a null member is added. */
    std::shared_ptr<export_field> operator[](const std::string& str) override
    {
        if (const std::shared_ptr<export_field>* const member = map.find(str)) {
            return *member;
        }
        // The node is made before the member: if that fails, there is no member.
        return map[str] = std::make_shared<export_field_null>(nullptr, this);
    }

    const export_members& members() const { return map; }

private:
    export_members map;
};

/** @} */

/**
 * @defgroup export_builder 3. The proto
 * @ingroup export_framework
 * @{
 */

/**
 * A value-like handle to a node, used to write and read trees.
 *
 * A braced list of key-value pairs makes an object, any other list an array; a lookup gives a
 * handle to the member that it finds, and assigning to it replaces that member. A proto shares its
 * node with the containers that hold it; it never copies one. A moved-from proto holds no node: it
 * can only be assigned to, destroyed, or, unless it is const, looked up by key.
 */
class export_proto {
    template <typename T>
    static constexpr bool would_become_bool =
        std::is_scalar_v<T> && !std::is_same_v<T, bool> && !std::is_null_pointer_v<T> &&
        !std::is_same_v<T, unsigned char> && !std::is_same_v<T, unsigned int> &&
        !std::is_same_v<T, unsigned long> && !std::is_convertible_v<T, const char*>;

public:
    export_proto(std::shared_ptr<export_field> node) : val(std::move(node)) {}

    export_proto(std::initializer_list<export_proto> ilist) : val(container_of(ilist)) {}

    /**
     * An empty array, written {nullptr}; the contents of the list are ignored.
     *
     * To C++ a literal zero is a null pointer, so {0u} is empty as well. An array that holds the
     * number 0 is {export_proto(0u)}.
     */
    export_proto(std::initializer_list<std::nullptr_t> /*ilist*/)
        : val(std::make_shared<export_field_array>(nullptr))
    {}

    template <typename T,
              std::enable_if_t<std::is_same_v<T, unsigned char> || std::is_same_v<T, unsigned int>,
                               int> = 0>
    export_proto(T t) : val(std::make_shared<export_field_uint32>(t, nullptr))
    {}

    template <typename T, std::enable_if_t<std::is_same_v<T, unsigned long>, long> = 0>
    export_proto(T t) : val(std::make_shared<export_field_uint64>(t, nullptr))
    {}

    export_proto(bool b) : val(std::make_shared<export_field_bool>(b, nullptr)) {}
    export_proto(const char* s) : export_proto(text_of(s)) {}
    export_proto(std::string s) : val(std::make_shared<export_field_string>(std::move(s), nullptr))
    {}
    export_proto(std::nullptr_t) : val(std::make_shared<export_field_null>(nullptr, nullptr)) {}

    /** Deleted, since other numbers and pointers would silently convert to bool. */
    template <typename T, std::enable_if_t<would_become_bool<T>, char> = 0>
    export_proto(T) = delete;

    /** An array with one number for each byte. */
    static export_proto from_bytes(std::vector<uint8_t> bytes)
    {
        return export_proto(std::make_shared<export_field_array>(
            std::move(bytes), export_field_array::byte_class::uint32, nullptr));
    }

    export_proto(export_proto&&) = default;
    export_proto(const export_proto&) = delete;
    export_proto& operator=(const export_proto&) = delete;

    virtual ~export_proto() = default;

    /**
     * Replaces this proto's node by the other's: under the same key of its container, or only here
     * if it has no container. The other proto is left without a node.
     *
     * This proto still refers to the replaced node. To assign to the member again, look it up
     * again: the replaced node is no longer a member, and what is assigned to it gets the key "".
     *
     * A member of an object is exchanged in place, without `remove` and `add`. So it keeps its key
     * and nothing is allocated: an assignment cannot lose a member. It costs a search through the
     * members, as removing does. Any other container, even one that derives from an object, is
     * asked to remove and then to add; it loses the member if adding fails.
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
        export_field& container = *parent;
        if (typeid(container) != typeid(export_field_object) ||
            !static_cast<export_field_object&>(container).replace(val, other.val))
        {
            container.add(container.remove(val), other.val);
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
            val = std::make_shared<export_field_object>(nullptr);
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

    /** The low 8 bits of each number in an array; empty if the node is not an array. */
    std::vector<uint8_t> to_bytes() const
    {
        const export_field& node = *val;
        if (typeid(node) == typeid(export_field_array)) {
            const auto& kept = static_cast<const export_field_array&>(node).kept_bytes();
            if (!kept.empty()) {
                return kept;
            }
        }
        std::vector<uint8_t> bytes;
        for (const export_field& element : node) {
            bytes.push_back(static_cast<uint8_t>(element.get_uint32()));
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
        return ilist.size() != 0 &&
               std::all_of(ilist.begin(), ilist.end(), [](const export_proto& element) {
                   return element.val->is_key_val_pair();
               });
    }

    static std::shared_ptr<export_field> container_of(std::initializer_list<export_proto> ilist)
    {
        if (!all_pairs(ilist)) {
            auto array = std::make_shared<export_field_array>(nullptr);
            for (const export_proto& element : ilist) {
                array->add({}, element.val);
            }
            return array;
        }
        auto object = std::make_shared<export_field_object>(nullptr);
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

/**
 * Converts between trees and JSON, by json-c. One instance handles one document.
 *
 * Each json-c value has one owner at every moment: the visit that makes it, then `last`, then the
 * container that it is added to. The first object visited, which is the whole document, belongs to
 * `root` from the start.
 */
class json_c_serializer : public export_field_serializer {
public:
    json_c_serializer() = default;
    json_c_serializer(const json_c_serializer&) = delete;
    json_c_serializer& operator=(const json_c_serializer&) = delete;

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
        json_c::value_ptr array(made(json_object_new_array(), "json_object_new_array failed"));
        // A class derived from this one may want to visit each number.
        if (!field.kept_bytes().empty() && typeid(*this) == typeid(json_c_serializer)) {
            for (const uint8_t byte : field.kept_bytes()) {
                add_element(array.get(), byte_value(byte, field.kept_bytes_are()));
            }
        } else {
            for (const std::shared_ptr<export_field>& element : field.elements()) {
                element->accept(*this);
                add_element(array.get(), take_last());
            }
        }
        set_last(array.release());
    }

    void visit(const export_field_object& field) override
    {
        json_c::value_ptr owner(made(json_object_new_object(), "json_object_new_object failed"));
        json_object* const object = owner.get();
        if (root == nullptr) {
            root = std::shared_ptr<json_object>(owner.release(), json_object_put);
        }
        field.members().for_each([&](const std::string& key, const auto& child) {
            child->accept(*this);
            json_c::value_ptr value = take_last();
            attached(json_object_object_add(object, printable(key), value.get()), value,
                     "json_object_object_add failed");
        });
        set_last(object);
        static_cast<void>(owner.release());
    }

    void serialize(const uint8_t** blob, uint32_t* blob_length) override
    {
        const json_c::printed printed = json_c::print(last);
        if (printed.text == nullptr) {
            throw std::logic_error("json_object_to_json_string_ext gave no text");
        }
        if (printed.out_of_memory) {
            throw rova::exception(ROVA_ERROR_NO_MEMORY, "json_object_to_json_string_ext failed",
                                  ROVA_HERE);
        }
        str = std::string(printed.text);
        refuse_too_long(str.size(), "serialize");
        *blob = reinterpret_cast<const uint8_t*>(str.c_str());
        *blob_length = static_cast<uint32_t>(str.size() + 1);
    }

    /** Moves out the text that serialize() gave; the pointer it gave is no longer valid. */
    std::string take_text() { return std::move(str); }

    export_field* deserialize(const uint8_t* blob, uint32_t blob_length) override
    {
        if (blob == nullptr || std::memchr(blob, 0, blob_length) == nullptr) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE,
                                  "export payload is not terminated by NUL", ROVA_HERE);
        }
        refuse_too_long(blob_length - 1, "deserialize");
        const json_c::parsed parsed = json_c::parse(reinterpret_cast<const char*>(blob));
        if (parsed.out_of_memory) {
            throw std::bad_alloc();
        }
        if (parsed.error != json_tokener_success) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE,
                                  parsed.error == json_tokener_error_depth
                                      ? "export payload is nested too deeply"
                                      : "export payload is not valid JSON",
                                  ROVA_HERE);
        }
        return traverse(parsed.document.get(), nullptr, nullptr, nullptr);
    }

    /**
     * Makes the field of a json-c value and adds it to the container that is being filled.
     *
     * @param jso      the value; it stays the caller's.
     * @param jso_key  the member's name; null for array elements and the top level.
     * @param parent_jso  not used.
     * @param jso_index  not used.
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
    /** While this lives, new values go into the given container. */
    class filling {
    public:
        filling(export_field*& receiver, export_field* container)
            : m_receiver(receiver), m_outer(std::exchange(receiver, container))
        {}
        filling(const filling&) = delete;
        filling& operator=(const filling&) = delete;
        ~filling() { m_receiver = m_outer; }

    private:
        export_field*& m_receiver;
        export_field* m_outer;
    };

    static void refuse_too_long(size_t bytes, const char* function)
    {
        // Not tested: this takes more than 1 GiB of memory.
        if (bytes > json_c::max_text_bytes) {
            throw rova::exception(ROVA_ERROR_TOO_BIG, "text is too long for a descriptor",
                                  {__FILE__, function, __LINE__});
        }
    }

    static const char* printable(const std::string& text)
    {
        refuse_too_long(text.size(), "visit");
        return text.c_str();
    }

    static json_object* made(json_object* value, const char* failure)
    {
        if (value == nullptr) {
            throw rova::exception(ROVA_ERROR_NO_MEMORY, failure, {__FILE__, "visit", __LINE__});
        }
        return value;
    }

    static json_c::value_ptr byte_value(uint8_t byte, export_field_array::byte_class byte_class)
    {
        if (byte_class == export_field_array::byte_class::uint32) {
            return json_c::value_ptr(made(json_object_new_int(byte), "json_object_new_int failed"));
        }
        return json_c::value_ptr(made(json_object_new_int64(byte), "json_object_new_int64 failed"));
    }

    static void add_element(json_object* array, json_c::value_ptr value)
    {
        attached(json_object_array_add(array, value.get()), value, "json_object_array_add failed");
    }

    /** Completes adding a value to a container, which owns the value if the result is 0. */
    static void attached(int result, json_c::value_ptr& value, const char* failure)
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

    json_c::value_ptr take_last()
    {
        json_object* const value = std::exchange(last, nullptr);
        // If `root` owns the value, it is an object in a top-level array; then it is shared.
        return json_c::value_ptr(value == root.get() ? json_object_get(value) : value);
    }

    /** The container that receives the next value. Only an object can be at the top, without one.
     */
    export_field* receiver() const
    {
        if (tmp_container == nullptr) {
            throw rova::exception(ROVA_ERROR_INVALID_VALUE,
                                  "export payload's top-level value is not an object",
                                  {__FILE__, "deserialize", __LINE__});
        }
        return tmp_container;
    }

    export_field* traverse_object(json_object* jso, const std::string& key)
    {
        if (tmp_container == nullptr) {
            auto top = std::make_unique<export_field_object>(nullptr);
            traverse_members(jso, top.get());
            return top.release();
        }
        auto object = std::make_shared<export_field_object>(nullptr);
        receiver()->add(key, object);
        traverse_members(jso, object.get());
        return object.get();
    }

    void traverse_members(json_object* jso, export_field_object* object)
    {
        const filling scope(tmp_container, object);
        for (const lh_entry* entry = json_object_get_object(jso)->head; entry != nullptr;
             entry = entry->next)
        {
            traverse(static_cast<json_object*>(const_cast<void*>(entry->v)), jso,
                     static_cast<const char*>(entry->k), nullptr);
        }
    }

    void traverse_array(json_object* jso, const std::string& key)
    {
        const size_t length = json_object_array_length(jso);
        std::vector<uint8_t> bytes = leading_bytes(jso, length);
        if (bytes.size() == length) {
            receiver()->add(key,
                            std::make_shared<export_field_array>(
                                std::move(bytes), export_field_array::byte_class::uint64, nullptr));
            return;
        }
        auto array = std::make_shared<export_field_array>(nullptr);
        receiver()->add(key, array);
        const filling scope(tmp_container, array.get());
        for (size_t i = 0; i < length; ++i) {
            traverse(json_object_array_get_idx(jso, i), jso, nullptr, &i);
        }
    }

    /** The leading elements that are bytes. */
    static std::vector<uint8_t> leading_bytes(json_object* array, size_t length)
    {
        std::vector<uint8_t> bytes;
        bytes.reserve(length);
        for (size_t i = 0; i < length; ++i) {
            json_object* const element = json_object_array_get_idx(array, i);
            const bool is_integer = json_object_is_type(element, json_type_int) != 0;
            const int64_t number = is_integer ? json_object_get_int64(element) : -1;
            if (number < 0 || number > 255) {
                break;
            }
            bytes.push_back(static_cast<uint8_t>(number));
        }
        return bytes;
    }

    template <typename field, typename value>
    void add_field(const std::string& key, value&& val)
    {
        export_field* const container = receiver();
        container->add(key, std::make_shared<field>(std::forward<value>(val), container));
    }

    json_object* last = nullptr;
    std::shared_ptr<json_object> root;
    std::string str;
    export_field* tmp_container = nullptr;
};

/** @} */

/**
 * @defgroup export_ends 5. Both ends
 * @ingroup export_framework
 * @{
 */

/** A proto that can be written as a descriptor. Owns the bytes of the last descriptor built. */
class priv_rova_exporter : public export_proto {
public:
    /**
     * Builds the descriptor of the tree, whose root is an object.
     *
     * @param blob         receives a pointer to the first byte, valid until the next call or the
     *                     destruction of this object.
     * @param blob_length  receives the number of bytes. Neither is written on failure.
     */
    void export_obj(const uint8_t** blob, size_t* blob_length)
    {
        if (val == nullptr || !val->is_object()) {
            throw rova::exception(ROVA_ERROR_BAD_STATE, "only an object can be exported",
                                  ROVA_HERE);
        }
        const std::string payload = payload_text();
        const auto* const payload_blob = reinterpret_cast<const uint8_t*>(payload.c_str());
        const export_header_factory::export_ptr hdr = export_header_factory::get_latest();
        export_blob = hdr->serialize(payload_blob, static_cast<uint32_t>(payload.size() + 1)).first;
        *blob = export_blob.data();
        *blob_length = export_blob.size();
    }

private:
    // Frees the json-c document, which is many times as large as its text, before the text is used.
    std::string payload_text() const
    {
        json_c_serializer serializer;
        val->accept(serializer);
        const uint8_t* payload_blob = nullptr;
        uint32_t payload_blob_length = 0;
        serializer.serialize(&payload_blob, &payload_blob_length);
        return serializer.take_text();
    }

    std::vector<uint8_t> export_blob;
};

/** The tree that a descriptor carries, to be read by key or index. Owns the tree. */
class priv_rova_importer : public export_proto {
public:
    /** Reads a descriptor, which may hold any bytes; they are not used after the call. */
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
    explicit priv_rova_importer(std::shared_ptr<export_field> root) : export_proto(std::move(root))
    {}
};

/** @} */

}  // namespace core

/** @} */
