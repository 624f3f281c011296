/// Families of operators of value types, declared for one type of plain number at a time, so that each is an
/// ordinary function that services link to and that compilers name. For the headers of this library only.
#ifndef KOVA_DETAIL_OPERATORS_H
#define KOVA_DETAIL_OPERATORS_H

#include <kova/export.h>

// NOLINTBEGIN(bugprone-macro-parentheses): types cannot stand in any.

/// Members of `Class` with a number on the right.
#define KOVA_DETAIL_ARITHMETIC(Class, Right) \
    Class operator+(Right right) const;      \
    Class operator-(Right right) const;      \
    Class operator*(Right right) const;      \
    Class operator/(Right right) const;      \
    Class operator%(Right right) const
#define KOVA_DETAIL_COMPARISON(Right)   \
    bool operator==(Right right) const; \
    bool operator!=(Right right) const; \
    bool operator<(Right right) const;  \
    bool operator<=(Right right) const; \
    bool operator>(Right right) const;  \
    bool operator>=(Right right) const

/// Functions with a number on the left, whose type the result of arithmetic has.
#define KOVA_DETAIL_LEFT(Class, Left)                        \
    KOVA_API Left operator+(Left left, const Class& right);  \
    KOVA_API Left operator-(Left left, const Class& right);  \
    KOVA_API Left operator*(Left left, const Class& right);  \
    KOVA_API Left operator/(Left left, const Class& right);  \
    KOVA_API Left operator%(Left left, const Class& right);  \
    KOVA_API bool operator==(Left left, const Class& right); \
    KOVA_API bool operator!=(Left left, const Class& right); \
    KOVA_API bool operator<(Left left, const Class& right);  \
    KOVA_API bool operator<=(Left left, const Class& right); \
    KOVA_API bool operator>(Left left, const Class& right);  \
    KOVA_API bool operator>=(Left left, const Class& right)

// NOLINTEND(bugprone-macro-parentheses)

#endif
