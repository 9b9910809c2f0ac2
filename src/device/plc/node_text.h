// An owned text of a node record in 24 bytes: up to 23 characters live
// inside the object, longer ones in one heap block of exactly their size.
// A gateway holds tens of thousands of nodes with six texts each, mostly
// short names and addresses: std::string would take 32 bytes for each and a
// heap block from 16 characters on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>
#include <string>
#include <utility>

class node_text {
public:
    static constexpr size_t INLINE_MAX = 23;

    node_text() noexcept { set_inline_size(0); }
    node_text(const char *s) { assign(s, s != nullptr ? strlen(s) : 0); } // NOLINT: implicit on purpose
    node_text(const std::string &s) { assign(s.data(), s.size()); }       // NOLINT
    node_text(const node_text &o) { assign(o.c_str(), o.size()); }
    node_text(node_text &&o) noexcept
    {
        memcpy(raw_, o.raw_, sizeof raw_);
        o.set_inline_size(0);
    }
    ~node_text() { release(); }

    node_text &operator=(const node_text &o)
    {
        if (this != &o)
            replace(o.c_str(), o.size());
        return *this;
    }
    node_text &operator=(node_text &&o) noexcept
    {
        if (this != &o) {
            release();
            memcpy(raw_, o.raw_, sizeof raw_);
            o.set_inline_size(0);
        }
        return *this;
    }
    node_text &operator=(const char *s)
    {
        replace(s, s != nullptr ? strlen(s) : 0);
        return *this;
    }
    node_text &operator=(const std::string &s)
    {
        replace(s.data(), s.size());
        return *this;
    }

    const char *c_str() const noexcept
    {
        return on_heap() ? heap_ptr() : reinterpret_cast<const char *>(raw_);
    }
    size_t size() const noexcept
    {
        if (!on_heap())
            return INLINE_MAX - raw_[TAG];
        size_t n;
        memcpy(&n, raw_ + sizeof(char *), sizeof n);
        return n;
    }
    bool empty() const noexcept { return size() == 0; }

    friend bool operator==(const node_text &a, const char *b) { return strcmp(a.c_str(), b) == 0; }
    friend bool operator==(const node_text &a, const std::string &b)
    {
        return a.size() == b.size() && memcmp(a.c_str(), b.data(), b.size()) == 0;
    }
    friend bool operator==(const node_text &a, const node_text &b)
    {
        return a.size() == b.size() && memcmp(a.c_str(), b.c_str(), a.size()) == 0;
    }
    friend std::ostream &operator<<(std::ostream &os, const node_text &t) { return os << t.c_str(); }

private:
    // Inline: the characters, their NUL, and in the last byte 23 minus the
    // length (0 for 23 characters, so that byte is their NUL too). On the
    // heap: the pointer, the length, and HEAP_TAG in the last byte.
    static constexpr size_t TAG = INLINE_MAX;
    static constexpr unsigned char HEAP_TAG = 0xFF;

    bool on_heap() const noexcept { return raw_[TAG] == HEAP_TAG; }
    char *heap_ptr() const noexcept
    {
        char *p;
        memcpy(&p, raw_, sizeof p);
        return p;
    }
    void set_inline_size(size_t n) noexcept
    {
        raw_[n] = 0;
        raw_[TAG] = static_cast<unsigned char>(INLINE_MAX - n);
    }
    void assign(const char *s, size_t n)
    {
        if (n <= INLINE_MAX) {
            if (n != 0)
                memcpy(raw_, s, n);
            set_inline_size(n);
            return;
        }
        auto *p = static_cast<char *>(malloc(n + 1));
        if (p == nullptr)
            throw std::bad_alloc();
        memcpy(p, s, n);
        p[n] = '\0';
        memcpy(raw_, &p, sizeof p);
        memcpy(raw_ + sizeof p, &n, sizeof n);
        raw_[TAG] = HEAP_TAG;
    }
    void replace(const char *s, size_t n)
    {
        node_text fresh;
        fresh.assign(s, n); // may throw: this text stays as it was
        *this = std::move(fresh);
    }
    void release() noexcept
    {
        if (on_heap())
            free(heap_ptr());
    }

    unsigned char raw_[INLINE_MAX + 1] = {};
};

static_assert(sizeof(node_text) == 24);

// The three texts a read never needs: unit, alarm content and description.
// Most nodes leave them empty, and then they cost one null pointer instead of
// three node_texts; otherwise they share one heap block of exactly their size,
// "unit\0content\0description\0".
class node_rare_texts {
public:
    node_rare_texts() noexcept = default;
    node_rare_texts(const char *unit, const char *alarm_content, const char *description)
    {
        const char *texts[] = {unit != nullptr ? unit : "",
                               alarm_content != nullptr ? alarm_content : "",
                               description != nullptr ? description : ""};
        size_t lengths[3];
        size_t total = 0;
        for (size_t i = 0; i < 3; ++i) {
            lengths[i] = strlen(texts[i]);
            total += lengths[i] + 1;
        }
        if (total == 3)
            return;
        block_ = static_cast<char *>(malloc(total));
        if (block_ == nullptr)
            throw std::bad_alloc();
        char *at = block_;
        for (size_t i = 0; i < 3; ++i) {
            memcpy(at, texts[i], lengths[i] + 1);
            at += lengths[i] + 1;
        }
    }
    node_rare_texts(const node_rare_texts &o)
        : node_rare_texts(o.unit(), o.alarm_content(), o.description())
    {
    }
    node_rare_texts(node_rare_texts &&o) noexcept : block_(std::exchange(o.block_, nullptr)) {}
    node_rare_texts &operator=(node_rare_texts o) noexcept
    {
        std::swap(block_, o.block_);
        return *this;
    }
    ~node_rare_texts() { free(block_); }

    const char *unit() const noexcept { return text(0); }
    const char *alarm_content() const noexcept { return text(1); }
    const char *description() const noexcept { return text(2); }

private:
    const char *text(int index) const noexcept
    {
        if (block_ == nullptr)
            return "";
        const char *at = block_;
        for (int i = 0; i < index; ++i)
            at += strlen(at) + 1;
        return at;
    }

    char *block_ = nullptr;
};

static_assert(sizeof(node_rare_texts) == sizeof(char *));
