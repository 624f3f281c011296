/// What an object's error record must hold.
#ifndef KOVA_TESTS_SUPPORT_RECORDED_H
#define KOVA_TESTS_SUPPORT_RECORDED_H

#include <kova/base_object.h>

#include <gtest/gtest.h>

#include <string>

/// Whether the last error is `code`, recorded by `function` on some line.
inline testing::AssertionResult Recorded(const KovaBaseObject& object, int code,
                                         const std::string& function) {
    const char* const text = object.GetErrorFunction() == nullptr ? "none" : object.GetErrorFunction();
    if (object.GetError() == code && function == text && object.GetErrorLine() > 0)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "recorded " << object.GetError() << " by " << text << ", line "
                                       << object.GetErrorLine() << ", not " << code << " by " << function;
}

#endif
