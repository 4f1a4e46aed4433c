// Binding items as the writer formats them by hand, at the edges of their
// fields (the texts "%d", "0x%02x", "0x%016llx" and "%.*s" give).
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

#include "config/binding_tables.h"

namespace {

struct Case {
    int npd, adapt, target, attribute, group;
    uint64_t priority;  // the word of the record's priority kind
    const char *bind;
    const char *want;  // nullptr: the kind has no item
};

TEST(BindingText, ItemsAtTheEdgesOfTheirFields) {
    const Case cases[] = {
        {1, -1, -2, 0, 0, 0, "0x5000000000000a01ffffffff", "qmxl-1-tid--2-wwpn=0x5000000000000a01ffffff:"},
        {2, INT_MAX, INT_MIN, 0, 0, 0, "", "qmxl2147483647-tid--2147483648-wwnn=:"},
        {4, 0, 0, -1, 0, 0, "", "qmxl0-tid-0-attribute=0xffffffff:"},
        {4, 0, 0, 0, 0, 0, "", "qmxl0-tid-0-attribute=0x00:"},
        {9, 0, 0, 0, INT_MIN, 0, "", "qmxl0-tid-0-gt=-2147483648:"},
        {5, 1, 1, 0, 0, ~0ull, "", "qmxl1-tid-1-priority0=0xffffffffffffffff:"},
        {7, 1, 1, 0, 0, 0xab, "", "qmxl1-tid-1-priority2=0x00000000000000ab:"},
        {3, 0, 0, 0, 0, 0, "", nullptr},
        {10, 0, 0, 0, 0, 0, "", nullptr},
        {-5, 0, 0, 0, 0, 0, "", nullptr},
        {9, 1, 1, 0, 7, 0, "", "qmxl1-tid-1-gt=7:"},
        {9, 1, 10, 0, 7, 0, "", "qmxl1-tid-10-gt=7:"},
        {9, 11, 0, 0, 7, 0, "", "qmxl11-tid-0-gt=7:"},
    };
    // One writer through all the cases, as a table is written: the kept
    // "qmxl<A>-tid-<T>-" text must follow every change of adapter or target.
    BindingTextWriter run;
    for (const Case &c : cases) {
        __TBLKEY r{};
        r.npd = c.npd;
        r.adapt = c.adapt;
        r.target = c.target;
        r.attribute = c.attribute;
        r.group = c.group;
        if (c.npd >= kBindPriority0 && c.npd < kBindPriority0 + 4)
            r.priority[c.npd - kBindPriority0] = c.priority;
        std::memcpy(r.bind, c.bind, std::min(std::strlen(c.bind), sizeof r.bind));
        char buf[kBindingTextMax], runBuf[kBindingTextMax];
        char *end = bindingItemText(buf, r), *runEnd = run.item(runBuf, r);
        if (c.want == nullptr) {
            EXPECT_EQ(end, nullptr) << c.npd;
            EXPECT_EQ(runEnd, nullptr) << c.npd;
            continue;
        }
        ASSERT_NE(end, nullptr) << c.want;
        ASSERT_NE(runEnd, nullptr) << c.want;
        EXPECT_EQ(std::string(buf, end), c.want);
        EXPECT_EQ(std::string(runBuf, runEnd), c.want);
    }
}

}  // namespace
