#include "frame/fail.h"

#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

/// A class that fails in every way there is. Not in a namespace, as its name stands in the recorded texts.
class Failing : public KovaBaseObject {
  public:
    bool Plain(int code) { return KOVA_FAIL(code, "plain code=%d", code); }
    bool Errno() { return KOVA_FAIL(errno, "errno=%d", errno); }
    bool WithoutValues() { return KOVA_FAIL(KOVA_ERR_OVERRUN, "overrun"); }
    bool WithoutTrace() { return KOVA_RECORD(ENOTSOCK); }
    virtual bool Virtual(const char*) { return KOVA_FAIL(EIO, "virtual"); }

    template <typename Value>
    bool Template(Value) {
        return KOVA_FAIL(EIO, "template");
    }

    bool InLambda() {
        const char* const function = __PRETTY_FUNCTION__;
        return [&] { return KOVA_FAIL_IN(function, EAGAIN, "lambda"); }();
    }
};

namespace {

class Fail : public KovaTest {
  protected:
    TraceRecorder m_Recorder;
    Failing m_Object;
};

TEST_F(Fail, RecordsTracesAndYieldsFalseInOneLine) {
    EXPECT_FALSE(m_Object.Plain(30019));
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_OVERRUN, m_Object.GetError());
    EXPECT_STREQ("bool Failing::Plain(int)", m_Object.GetErrorFunction());
    ASSERT_EQ(1u, m_Recorder.All().size());
    EXPECT_TRUE(m_Recorder.Has("plain code=%d", {30019}));
    EXPECT_EQ(m_Object.GetErrorLine(), static_cast<int>(m_Recorder.All()[0].line));
}

TEST_F(Fail, ErrnoAsCodeAndValueIsThatOfTheFailure) {
    errno = ENOENT;
    EXPECT_FALSE(m_Object.Errno());
    EXPECT_EQ(ENOENT, m_Object.GetError());
    EXPECT_TRUE(m_Recorder.Has("errno=%d", {ENOENT}));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Fail, NeedsNoValues) {
    EXPECT_FALSE(m_Object.WithoutValues());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_OVERRUN, m_Object.GetError());
    EXPECT_TRUE(m_Recorder.Has("overrun"));
}

TEST_F(Fail, RecordAloneWritesNoTrace) {
    EXPECT_FALSE(m_Object.WithoutTrace());
    EXPECT_EQ(ENOTSOCK, m_Object.GetError());
    EXPECT_STREQ("bool Failing::WithoutTrace()", m_Object.GetErrorFunction());
    EXPECT_NE(0, m_Object.GetErrorLine());
    EXPECT_EQ(0u, m_Recorder.All().size());
}

TEST_F(Fail, FunctionTextIsTheFullSignature) {
    m_Object.Virtual("");
    EXPECT_STREQ("virtual bool Failing::Virtual(const char*)", m_Object.GetErrorFunction());
    m_Object.Template(1L);
    EXPECT_STREQ("bool Failing::Template(Value) [with Value = long int]", m_Object.GetErrorFunction());
}

TEST_F(Fail, LambdaFailsInTheNameOfItsFunction) {
    EXPECT_FALSE(m_Object.InLambda());
    EXPECT_STREQ("bool Failing::InLambda()", m_Object.GetErrorFunction());
    EXPECT_EQ(EAGAIN, m_Object.GetError());
    ASSERT_TRUE(m_Recorder.Has("lambda"));
    EXPECT_EQ(m_Object.GetErrorLine(), static_cast<int>(m_Recorder.All()[0].line));
}

TEST_F(Fail, KeeperLetsAnEarlierErrorSurvive) {
    m_Object.Plain(5);
    const int line = m_Object.GetErrorLine();
    {
        const kova::ErrorKeeper keep(m_Object);
        m_Object.ClearError();
        m_Object.WithoutValues();
    }
    EXPECT_EQ(5, m_Object.GetError());
    EXPECT_EQ(line, m_Object.GetErrorLine());
    EXPECT_STREQ("bool Failing::Plain(int)", m_Object.GetErrorFunction());
}

TEST_F(Fail, KeeperWithoutErrorKeepsTheLaterOne) {
    {
        const kova::ErrorKeeper keep(m_Object);
        m_Object.WithoutValues();
    }
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_OVERRUN, m_Object.GetError());
}

}  // namespace
