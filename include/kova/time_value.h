/// Points in time as values: a second of the wall clock or of the monotonic clock that can be compared, added
/// to, printed and converted.
///
/// | class              | holds               | the world outside sees     | an unset time (-1) is      |
/// |--------------------|---------------------|----------------------------|----------------------------|
/// | `KovaRealTime`     | wall-clock seconds  | the second that it holds   | later than every set time  |
/// | `KovaRelativeTime` | monotonic seconds   | the wall-clock second then | earlier than 0             |
///
/// Seconds are signed 32-bit numbers that wrap, also where `long` has 64 bits. No operation fails or blocks;
/// a conversion between the two clocks reads both of them. What is printed or pointed to lies inside the
/// object: it stays until the object is printed, converted or invalidated again. So one object, even a
/// `const` one, must not be used by two threads at once.
///
/// Operands of one operation are times of one class, or a time and a plain number where the operation names
/// `long`. A time is not compared with a plain number: `time == KovaRealTime(5)` says which clock is meant.
/// Where a comparison of both classes compiles, it converts one of the two: convert the one you mean.
#ifndef KOVA_TIME_VALUE_H
#define KOVA_TIME_VALUE_H

#include <kova/export.h>

#include <iosfwd>
#include <type_traits>

class KovaRelativeTime;

/// What both kinds of time have in common.
class KOVA_API KovaTime {
  public:
    /// The present wall-clock second.
    KovaTime();
    KovaTime(long seconds);
    /// Copies the second only: the copy has no text yet.
    KovaTime(const KovaTime& other);
    virtual ~KovaTime();

    /// The local time as text.
    virtual const char* CTime() const = 0;
    /// Same as `CTime`.
    virtual operator const char*() const;
    /// The wall-clock second.
    virtual operator long() const = 0;
    /// Where the wall-clock second is stored; never null.
    virtual operator const long*() const = 0;

    /// Makes it an unset time (-1) without text.
    void Invalidate();
    bool IsValid() const;

  protected:
    enum { kTextSize = 64 };

    /// Assigns the second only.
    KovaTime& operator=(const KovaTime& other) {
        m_Value = other.m_Value;
        return *this;
    }

    long m_Value;  ///< always within 32 bits
    mutable char m_Text[kTextSize];
};

/// Inserts the text.
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaTime& time);

/// A second of the wall clock, since 1970-01-01 UTC.
class KOVA_API KovaRealTime : public KovaTime {
  public:
    /// Now.
    KovaRealTime();
    KovaRealTime(long seconds);
    KovaRealTime(const KovaRealTime& other);
    /// Explicit, so that only the conversion operator is left for `KovaRealTime real = relative`, arguments
    /// and results. (`= {relative}` asks for this constructor and does not compile.)
    explicit KovaRealTime(const KovaRelativeTime& relative);
    virtual ~KovaRealTime();

    /// Assigns the second only.
    KovaRealTime& operator=(const KovaRealTime& other);

    /// Sets it to the present second and returns that.
    long Now();
    /// Same as `Now`.
    long Refresh();
    long RealTime() const;

    /// "Thu Jan  1 00:00:00 1970" in the local time zone; "time not set (invalid)" for -1.
    const char* CTime() const override;
    operator long() const override;
    operator const long*() const override;
    /// The monotonic second as `KovaGetRelativeFromRealTime` gives it: not the way back of the conversion
    /// from a relative time.
    operator KovaRelativeTime() const;

    /// By the seconds as unsigned numbers.
    bool operator<(const KovaRealTime& other) const;
    bool operator>(const KovaRealTime& other) const;
    bool operator==(const KovaRealTime& other) const;
    bool operator!=(const KovaRealTime& other) const;

    KovaRealTime& operator+=(long seconds);
    KovaRealTime& operator+=(const KovaRealTime& other);
    KovaRealTime& operator-=(long seconds);
    KovaRealTime& operator-=(const KovaRealTime& other);

    KovaRealTime operator+(long seconds) const;
    KovaRealTime operator+(const KovaRealTime& other) const;
    KovaRealTime operator-(long seconds) const;
    KovaRealTime operator-(const KovaRealTime& other) const;
    /// Integers of other types, literals above all.
    template <typename Integer, typename = std::enable_if_t<std::is_integral<Integer>::value>>
    KovaRealTime operator+(Integer seconds) const {
        return *this + static_cast<long>(seconds);
    }
    template <typename Integer, typename = std::enable_if_t<std::is_integral<Integer>::value>>
    KovaRealTime operator-(Integer seconds) const {
        return *this - static_cast<long>(seconds);
    }

    /// Seconds from `other` to this time, limited to what an `int` holds. A relative time is converted first.
    int DiffTime(const KovaRealTime& other) const;
    int DiffTime(const KovaRelativeTime& other) const;
};

/// A second of the monotonic clock. Its texts and numbers are those of the wall-clock second that corresponds
/// to it, as the clocks stand when they are asked for.
class KOVA_API KovaRelativeTime : public KovaTime {
  public:
    /// Now.
    KovaRelativeTime();
    /// From a wall-clock second, converted by `KovaGetRelativeFromRealTime`.
    KovaRelativeTime(long real);
    /// From a monotonic second, as it is. Either value of the flag selects this.
    KovaRelativeTime(long relative, bool is_relative);
    KovaRelativeTime(const KovaRelativeTime& other);
    /// As from its wall-clock second. Explicit like the constructor the other way round.
    explicit KovaRelativeTime(const KovaRealTime& real);
    virtual ~KovaRelativeTime();

    /// Assigns the second only.
    KovaRelativeTime& operator=(const KovaRelativeTime& other);

    /// Sets it to the present monotonic second and returns that.
    long Refresh();
    /// The wall-clock second that corresponds to it.
    long RealTime() const;

    /// "Thu Jan  1 00:00:00 19700": the text of the wall-clock second, followed by a zero digit;
    /// "time not set (invalid)" for -1.
    const char* CTime() const override;
    /// The wall-clock second, not the monotonic one.
    operator long() const override;
    operator const long*() const override;
    operator KovaRealTime() const;

    /// By the monotonic seconds as signed numbers.
    bool operator<(const KovaRelativeTime& other) const;
    bool operator>(const KovaRelativeTime& other) const;
    bool operator==(const KovaRelativeTime& other) const;
    bool operator!=(const KovaRelativeTime& other) const;

    KovaRelativeTime& operator+=(long seconds);
    KovaRelativeTime& operator+=(const KovaRelativeTime& other);
    KovaRelativeTime& operator-=(long seconds);
    KovaRelativeTime& operator-=(const KovaRelativeTime& other);

    KovaRelativeTime operator+(long seconds) const;
    KovaRelativeTime operator+(const KovaRelativeTime& other) const;
    KovaRelativeTime operator-(long seconds) const;
    KovaRelativeTime operator-(const KovaRelativeTime& other) const;
    /// Integers of other types, literals above all.
    template <typename Integer, typename = std::enable_if_t<std::is_integral<Integer>::value>>
    KovaRelativeTime operator+(Integer seconds) const {
        return *this + static_cast<long>(seconds);
    }
    template <typename Integer, typename = std::enable_if_t<std::is_integral<Integer>::value>>
    KovaRelativeTime operator-(Integer seconds) const {
        return *this - static_cast<long>(seconds);
    }

    /// Seconds from `other` to this time, limited to what an `int` holds. A real time is converted first.
    int DiffTime(const KovaRelativeTime& other) const;
    int DiffTime(const KovaRealTime& other) const;

  private:
    mutable long m_RealTime;  ///< the last wall-clock second that was given out
};

#endif
