// SPDX-License-Identifier: Apache-2.0
// tests/data/trace.* hold the lines, without times and with @ for the process.
#include "trace.h"

#include <gtest/gtest.h>

#include "support/processes.h"
#include "support/requests.h"
#include "vexa/ipc/ipc_object_stub.h"
#include "vexa/ipc/trace_operation.h"

namespace VEXA::ipc {
namespace {

const TraceOperation kOperation(u"x.I", 1, "DO", "int32 a, uint32 b, int64 c, bool d, object e, Text f -> text g");

template <typename... Fields>
void Tell(const char16_t* token, bool isOut, bool isOneWay, int32_t result, const Fields&... fields)
{
    MessageParcel data;
    MessageParcel reply;
    data.WriteInterfaceToken(token);
    (test::PutField{data}(fields), ...);
    const std::u16string head = data.ReadInterfaceToken();
    RequestTrace trace({isOut, isOut, -1, 7}, 1, isOneWay, data);
    reply.WriteString("r");
    trace.End(result, reply);
    EXPECT_TRUE(data.GetReadPosition() == 4 + (head.size() * 2 + 5) / 4 * 4 && reply.ReadString() == "r");
}

// For a process of its own, which reads once where its lines go.
int TellAll(const std::string& form)
{
    const test::TempDir folder;
    const std::string file = folder.Path() + form;
    setenv("VEXA_TRACE", file.c_str(), 1);
    const sptr<IRemoteObject> object(new IPCObjectStub(u"x.J"));
    Tell(u"x.I", true, false, -3, -1, 4000000000U, int64_t{1} << 40, true, object, "\"\\\x1b\xc3\n");
    Tell(u"x.I", false, true, 0, 1, 2U, int64_t{3}, false, sptr<IRemoteObject>(), std::string(201, 'l'));
    Tell(u"x.I", true, true, 0, 1, 2U);
    Tell(u"x\n.I", false, false, 9, 1);
    TraceObject({false, true, -1, 8}, *object, 3, 4);
    TraceDeath(-1);
    std::string told;
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        told += line.substr(line.find(' ') + 1, line.rfind("ms") - line.find(' ') - 1) + '\n';
    }
    std::string expected = test::FileText(NM_TEST_DATA_DIR + form);
    for (size_t at = 0; (at = expected.find('@')) != std::string::npos;) {
        expected.replace(at, 1, std::to_string(getpid()));
    }
    EXPECT_EQ(told, expected);
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(Trace, ALineHoldsWhatAParcelDoesAndNothingThatEndsIt)
{
    for (const char* const form : {"/trace.txt", "/trace.json"}) {
        EXPECT_EQ(test::InChild([form] { return TellAll(form); }), 0) << form;
    }
}

}  // namespace
}  // namespace VEXA::ipc
