// The choice of one mutant at run time. Every mutated source calls these where the original had a
// condition, a statement or a switch; with no choice made they change nothing.
//
// A place of the source has a number of its own, its first mutant's; the further mutants of the
// same place follow it. What a run without a choice saw at each place is kept for the row, which
// then runs only the cases that can tell a mutant from the original.
#pragma once

#include <type_traits>

namespace mutation {

// The mutant that was chosen, or -1.
extern int chosen;
// A byte for each number: which of the bits below was seen there.
extern unsigned char *seen;
enum : unsigned char { was_false = 1, was_true = 2, was_reached = 4 };

// The mutants of a condition in the order of their numbers.
enum { flipped, always_true, always_false };

constexpr bool condition(int place, bool value) {
    if (std::is_constant_evaluated()) return value;
    seen[place] = static_cast<unsigned char>(seen[place] | (value ? was_true : was_false));
    switch (chosen - place) {
    case flipped:
        return !value;
    case always_true:
        return true;
    case always_false:
        return false;
    default:
        return value;
    }
}

// Whether a statement is still there.
constexpr bool stays(int place) {
    if (std::is_constant_evaluated()) return true;
    seen[place] = was_reached;
    return chosen != place;
}

// The value of a switch; one whose case was removed becomes a value that no case has.
template <class T, class... Cases>
constexpr T selected(int place, T value, Cases... cases) {
    if (std::is_constant_evaluated()) return value;
    int i = 0;
    bool removed = false;
    ((value == static_cast<T>(cases)
          ? (seen[place + i] = was_reached, removed = removed || chosen == place + i, ++i)
          : ++i),
     ...);
    if (!removed) return value;
    for (int other = 120;; --other) {
        const T free = static_cast<T>(other);
        if (((free != static_cast<T>(cases)) && ...)) return free;
    }
}

}  // namespace mutation
