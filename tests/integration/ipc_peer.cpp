// SPDX-License-Identifier: Apache-2.0
// The other process of the transport's tests: `ipc_peer hub` publishes a TestObject as the context object,
// `ipc_peer NAME` gives one to the hub under that name. Runs until it is killed.
#include <cstring>

#include "support/processes.h"
#include "support/test_object.h"

using namespace VEXA;
using namespace VEXA::test;

int main(int argc, char** argv)
{
    if (argc != 2) {
        return 2;
    }
    const sptr<IRemoteObject> object(new TestObject);
    if (std::strcmp(argv[1], "hub") == 0) {
        if (PublishContextObject(object) != PublishResult::DONE) {
            return 1;
        }
    } else if (!Eventually([] { return GetContextObject() != nullptr; }) ||
               Call(GetContextObject(), KEEP, argv[1], object).Send() != 0) {
        return 1;
    }
    for (;; pause()) {
    }
}
