#ifndef VELA_TESTS_LAYOUT_PROBE_H
#define VELA_TESTS_LAYOUT_PROBE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

/*
 * Reading the layout of the exported classes from outside.
 *
 * Field offsets: the fields are protected or private, so a pointer to each
 * is taken in an explicit template instantiation (where access is not
 * checked) and handed out through a friend function of a tag type. The
 * offset is then measured on a real object.
 *
 * Virtual slots: on the Itanium C++ ABI (GCC and Clang) a pointer to a
 * virtual member function holds the function's offset in the vtable: in its
 * pointer word plus one on most targets, in its pointer word with the low
 * bit of the adjustment word set on ARM.
 */
namespace layout {

template <typename Tag, auto Member>
struct FieldOffset {
    friend std::ptrdiff_t offsetIn(Tag, const typename Tag::Class& object)
    {
        return reinterpret_cast<const char*>(&(object.*Member)) - reinterpret_cast<const char*>(&object);
    }
};

// Declares the tag `Class_field` and opens the field to offsetIn(); used in
// namespace layout itself.
#define VELA_LAYOUT_FIELD(ClassName, field)                                                          \
    struct ClassName##_##field {                                                                     \
        using Class = ClassName;                                                                     \
        friend std::ptrdiff_t offsetIn(ClassName##_##field, const ClassName& object);                \
    };                                                                                               \
    template struct FieldOffset<ClassName##_##field, &ClassName::field>

// Whether every offset is larger than the one before it.
inline bool strictlyIncreasing(const std::vector<std::ptrdiff_t>& offsets)
{
    for (std::size_t i = 1; i < offsets.size(); ++i) {
        if (offsets[i] <= offsets[i - 1])
            return false;
    }
    return true;
}

#if defined(__GNUC__) || defined(__clang__)
#define VELA_LAYOUT_ITANIUM_ABI 1

// The vtable slot of a virtual member function, or -1 when `member` does
// not name a virtual function.
template <typename MemberFunction>
std::ptrdiff_t vtableSlot(MemberFunction member)
{
    static_assert(sizeof(MemberFunction) == 2 * sizeof(std::uintptr_t), "Itanium member function pointer");
    std::uintptr_t words[2];
    std::memcpy(words, &member, sizeof words);
#if defined(__arm__) || defined(__aarch64__)
    if ((words[1] & 1u) == 0)
        return -1;
    return static_cast<std::ptrdiff_t>(words[0] / sizeof(void*));
#else
    if ((words[0] & 1u) == 0)
        return -1;
    return static_cast<std::ptrdiff_t>((words[0] - 1) / sizeof(void*));
#endif
}
#endif

} // namespace layout

#endif
