/*
 * Printing and parsing by json-c, with every failure detected.
 *
 * When an allocation fails, json-c may report it only through errno, and continue without a piece
 * of the text. The result looks complete and would get a valid checksum, so errno is what counts.
 * But a successful allocation may leave ENOMEM in errno too, when the heap could not grow and other
 * memory was found instead. So an operation that ends with ENOMEM is repeated once from the start,
 * as the heap no longer has to grow then. If it ends with ENOMEM again, it has failed.
 */
#pragma once

#include <locale.h>

#include <cerrno>
#include <cstddef>
#include <memory>

#include <json-c/json.h>

namespace core::json_c {

struct value_deleter {
    void operator()(json_object* value) const { json_object_put(value); }
};
using value_ptr = std::unique_ptr<json_object, value_deleter>;

struct tokener_deleter {
    void operator()(json_tokener* tokener) const { json_tokener_free(tokener); }
};
using tokener_ptr = std::unique_ptr<json_tokener, tokener_deleter>;

// json-c counts in int, and silently drops a piece that would make a text longer than INT_MAX. This
// holds for the text that it prints and for a string that it reads. If each piece and the whole
// text are shorter than half of that, nothing was dropped.
inline constexpr size_t max_text_bytes = (size_t{1} << 30) - 16;

inline constexpr int most_tries = 2;

/**
 * Puts the thread into the C locale; the destructor restores the locale and errno.
 *
 * In another locale, json-c prints a double with that locale's decimal sign, and corrects only a
 * comma. When it parses, it copies the locale for each piece of text; a copy of the C locale is the
 * C locale itself, and costs nothing.
 */
class surroundings {
public:
    surroundings() : m_errno(errno), m_locale(uselocale(newlocale(LC_ALL_MASK, "C", nullptr))) {}
    surroundings(const surroundings&) = delete;
    surroundings& operator=(const surroundings&) = delete;
    ~surroundings()
    {
        uselocale(m_locale);
        errno = m_errno;
    }

private:
    int m_errno;
    locale_t m_locale;
};

/** The text belongs to the json-c value; it is null if json-c gave none. */
struct printed {
    const char* text = nullptr;
    bool out_of_memory = true;
};

inline printed print(json_object* value)
{
    const surroundings scope;
    printed result;
    for (int tries = 0; result.out_of_memory && tries < most_tries; ++tries) {
        errno = 0;
        result.text = json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN);
        result.out_of_memory = errno == ENOMEM;
    }
    return result;
}

/**
 * The document is valid if there is no error and memory has not run out. A null pointer is valid,
 * too: it stands for the JSON value null.
 */
struct parsed {
    value_ptr document;
    json_tokener_error error = json_tokener_continue;
    bool out_of_memory = true;
};

/**
 * How much of a text json-c is given before errno is checked.
 *
 * Only at the end of a string or an object can an allocation fail with no sign but errno. json-c
 * clears errno at the next number, and crashes at the next value if it could not copy the name. So
 * a piece ends after each character that may end a string or an object, whether or not json-c reads
 * it so, or with the NUL.
 */
inline size_t piece_length(const char* text)
{
    size_t length = 0;
    // Not tested: a text without its end.
    for (; length < max_text_bytes; ++length) {
        const char c = text[length];
        if (c == '"' || c == '\'' || c == '}' || c == '\0') {
            break;
        }
    }
    return length + 1;
}

inline parsed parse_once(const char* text)
{
    parsed result;
    const tokener_ptr tokener(json_tokener_new());
    if (tokener == nullptr) {
        return result;
    }
    // Not tested: `at_end` never ends this loop, as json-c asks for no more text after the NUL.
    for (bool at_end = false; result.error == json_tokener_continue && !at_end;) {
        const size_t length = piece_length(text);
        at_end = text[length - 1] == '\0';
        errno = 0;
        result.document.reset(json_tokener_parse_ex(tokener.get(), text, static_cast<int>(length)));
        result.error = json_tokener_get_error(tokener.get());
        if (errno == ENOMEM) {
            return result;
        }
        text += length;
    }
    result.out_of_memory = false;
    return result;
}

/** Parses a text up to its NUL. */
inline parsed parse(const char* text)
{
    const surroundings scope;
    parsed result;
    for (int tries = 0; result.out_of_memory && tries < most_tries; ++tries) {
        result = parse_once(text);
    }
    return result;
}

}  // namespace core::json_c
