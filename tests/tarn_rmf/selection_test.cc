// The selection language over an abstract row: what it accepts and means,
// what it refuses and where, parameters, previous values and index plans.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tarn_rmf/registry/RMSelParser.h"
#include "tarn_rmf/registry/RMSelection.h"
#include "tarn_rmf/registry/RMTableError.h"
#include "tests/tarn_rmf/registry_test_util.h"

namespace {

using namespace tarn_rmf;

// An event-like row: zn values by column, some absent, with previous values.
class FakeRow : public RMSelSchema, public RMValueSource {
public:
    FakeRow() {
        h_ = regtest::handle(5);
        ids_ = zn_array_new(2);
        ids_->elements[0].val_uint64 = 0x11;
        ids_->elements[1].val_uint64 = 0x22;
        names_ = zn_array_new(2);
        names_->elements[0].ptr_char = const_cast<char*>("n1.example.com");
        names_->elements[1].ptr_char = const_cast<char*>("n2.example.com");
        blob_ = zn_binary_new("\1\2", 2);
        sd_ = zn_sd_new(0);
        add("Hostname", ZN_CHAR_PTR, {.ptr_char = const_cast<char*>("node1.rack2.example.com")});
        add("UniversalId", ZN_UINT64, {.val_uint64 = 0x8000000000000001ull});
        add("NodeIDs", ZN_UINT64_ARRAY, {.ptr_array = ids_});
        add("PowerStatus", ZN_UINT32, {.val_uint32 = 1});
        add("ConfigChanged", ZN_UINT32, {.val_uint32 = 1});
        add("ResourceHandle", ZN_RSRC_HANDLE_PTR, {.ptr_rsrc_handle = &h_});
        add("NodeNameList", ZN_CHAR_PTR_ARRAY, {.ptr_array = names_});
        add("Temperature", ZN_FLOAT64, {.val_float64 = 21.5});
        add("Offset", ZN_INT32, {.val_int32 = -7});
        add("ManagerType", ZN_CHAR_PTR, {.ptr_char = const_cast<char*>("WEX")});
        add("Empty", ZN_CHAR_PTR, {.ptr_char = nullptr});
        add("Blob", ZN_BINARY_PTR, {.ptr_binary = blob_});
        add("Extra", ZN_SD_PTR, {.ptr_sd = sd_});
        add("Missing", ZN_UINT32, {.val_uint32 = 5});
        add("Quiet", ZN_UINT32, {.val_uint32 = 0});
        add("Status", ZN_UINT32, {.val_uint32 = 1});
        absent_ = 13;                                 // "Missing" is not carried by this row
        previous_[3] = zn_value_t{.val_uint32 = 0};   // PowerStatus was 0
        previous_[15] = zn_value_t{.val_uint32 = 1};  // Status was 1
    }
    ~FakeRow() override {
        std::free(ids_);
        std::free(names_);
        std::free(blob_);
        std::free(sd_);
    }

    bool lookup(std::string_view name, int& column, zn_data_type_t& type) const override {
        for (size_t i = 0; i < names.size(); ++i) {
            if (names[i] == name) {
                column = static_cast<int>(i);
                type = types[i];
                return true;
            }
        }
        return false;
    }
    bool hasPrevious() const override { return withPrevious; }
    bool value(int column, RMValueView& out) const override {
        if (column == absent_) {
            return false;
        }
        out = rmViewOf(types[static_cast<size_t>(column)], values[static_cast<size_t>(column)]);
        return true;
    }
    bool previous(int column, RMValueView& out) const override {
        auto it = previous_.find(column);
        if (it == previous_.end()) {
            return false;
        }
        out = rmViewOf(types[static_cast<size_t>(column)], it->second);
        return true;
    }

    bool withPrevious = true;
    std::vector<std::string> names;
    std::vector<zn_data_type_t> types;
    std::vector<zn_value_t> values;

private:
    void add(const char* n, zn_data_type_t t, zn_value_t v) {
        names.emplace_back(n);
        types.push_back(t);
        values.push_back(v);
    }
    zn_resource_handle h_;
    zn_array* ids_;
    zn_array* names_;
    zn_binary* blob_;
    zn_structured_data* sd_;
    int absent_;
    std::map<int, zn_value_t> previous_;
};

bool run(const FakeRow& row, const char* text, const RMSelParams* params = nullptr) {
    auto sel = RMSelection::compile(text, row);
    return sel->evaluate(row, sel->bind(params));
}

TEST(RegistrySelection, SelectionsMeanWhatTheySay) {
    FakeRow row;
    struct Case {
        const char* text;
        bool expected;
    };
    const Case cases[] = {
        // as the classes write them
        {"*", true},
        {"", true},
        {"   ", true},
        {"Hostname==\"node1.rack2.example.com\"", true},
        {"Hostname==\"node2\"", false},
        {"UniversalId==0x8000000000000001", true},
        {"UniversalId!=0x8000000000000001 && ManagerType==\"WEX\"", false},
        {"UniversalId!=0x0000000000000002 && ManagerType==\"WEX\"", true},
        {"Hostname == \"node1.rack2.example.com\" && ManagerType == \"WEX\" && "
         "NodeNameList IN {\"n2.example.com\"}",
         true},
        {"NodeNameList IN {\"n3.example.com\"}", false},
        {"NodeIDs==0x0000000000000022", true},  // array holds it
        {"NodeIDs==0x0000000000000033", false},
        {"NodeIDs!=0x0000000000000033", true},
        {"PowerStatus!=PowerStatus@P", true},  // changed from 0 to 1
        {"Status!=Status@P", false},           // 1 before and now
        {"ConfigChanged", true},
        {"Quiet", false},
        {"Missing", false},  // not carried by the row
        {"!Missing", true},
        // comparisons across integer kinds and reals
        {"Offset < 0", true},
        {"Offset == -7", true},
        {"Offset >= -7 && Offset <= -7", true},
        {"Offset > -0x7", false},
        {"PowerStatus == 1.0", true},
        {"Temperature > 21", true},
        {"Temperature == 21.5", true},
        {"Temperature < 2.15e1", false},
        {"UniversalId > 0", true},
        {"UniversalId > -1", true},  // unsigned against negative
        {"Offset < 18446744073709551615", true},
        // strings: order, escapes, single quotes
        {"ManagerType < \"WEY\"", true},
        {"ManagerType >= 'WEX'", true},
        {"Hostname == 'node1.rack2.example.com'", true},
        {"\"a\\\"b\" == 'a\"b'", true},
        {"Empty == \"\"", true},  // a null string reads as empty
        // regular expressions
        {"Hostname =~ \"^node[0-9]+\\.rack2\"", true},
        {"Hostname =~ \"^rack\"", false},
        {"Hostname !~ \"^rack\"", true},
        {"NodeNameList =~ \"^n2\"", true},
        {"NodeNameList !~ \"^n\"", false},
        // IN, CONTAINS, array literals and attribute comparisons
        {"PowerStatus IN {0, 1, 2}", true},
        {"PowerStatus in {3, 4}", false},
        {"ManagerType IN {}", false},
        {"NodeIDs CONTAINS 0x11", true},
        {"NodeIDs contains {0x11, 0x22}", true},
        {"NodeIDs CONTAINS {0x11, 0x33}", false},
        {"NodeIDs == {0x11, 0x22}", true},
        {"NodeIDs == {0x22, 0x11}", false},
        {"NodeIDs > 0x20", true},  // some element
        {"Hostname CONTAINS \"rack2\"", true},
        {"Hostname CONTAINS \"rack3\"", false},
        {"ConfigChanged == PowerStatus", true},
        {"Offset < PowerStatus", true},
        // boolean structure: && binds tighter than ||, ! tightest
        {"Quiet || ConfigChanged && PowerStatus == 1", true},
        {"(Quiet || ConfigChanged) && PowerStatus == 0", false},
        {"!Quiet && !(PowerStatus == 0)", true},
        {"!!ConfigChanged", true},
        {"Missing == 5 || Missing != 5", false},  // absent: every comparison false
        {"Blob == Blob", true},
        {"ResourceHandle == ResourceHandle", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(run(row, c.text), c.expected) << c.text;
    }
}

TEST(RegistrySelection, ErrorsNameTheirPosition) {
    FakeRow row;
    struct Case {
        const char* text;
        int position;
        const char* detail;
    };
    const Case cases[] = {
        {"Hostnam == \"x\"", 1, "unknown attribute \"Hostnam\""},
        {"Hostname == 5", 10, "type mismatch"},
        {"PowerStatus == \"on\"", 13, "type mismatch"},
        {"Hostname = \"x\"", 10, "use \"==\""},
        {"Hostname == \"x", 13, "not closed"},
        {"(Hostname == \"x\"", 17, "\")\" was expected"},
        {"Hostname == \"x\" &&", 19, "ends where"},
        {"Hostname == \"x\" Status", 17, "\"&&\", \"||\" or the end"},
        {"* && Status", 3, "stands alone"},
        {"Status == 0x", 11, "hexadecimal"},
        {"Status == 99999999999999999999", 11, "too large"},
        {"Status == 12abc", 13, "run into a name"},
        {"Status == -9223372036854775809", 11, "too small"},
        {"Hostname =~ \"(\"", 13, "bad regular expression"},
        {"Hostname =~ ManagerType", 13, "must be a quoted string"},
        // patterns whose compiled form would explode are refused up front
        {"Hostname =~ \"a+++\"", 13, "a repetition may not follow another"},
        {"Hostname =~ \"((a{99}){99}){99}\"", 13, "too complex"},
        {"Hostname =~ \"a{300}\"", 13, "a repetition count above 255"},
        {"Hostname =~ \"(a)\\1\"", 13, "back-references"},
        {"Status =~ \"1\"", 8, "matches strings only"},
        {"Status IN 3", 8, "must be an array"},
        {"Status CONTAINS 3", 8, "must be an array or a string"},
        {"NodeIDs < {1}", 9, "two arrays"},
        {"ResourceHandle < ResourceHandle", 16, "orders numbers and strings"},
        {"Extra == Extra", 7, "structured data"},
        {"Status IN {1, \"a\"}", 15, "only numbers or only strings"},
        {"Status@Q", 7, "only \"@P\""},
        {"Status == #", 11, "unexpected character '#'"},
        {"$ == 1", 1, "parameter name"},
        {"$A == $B", 1, "two parameters"},
        {"{1, 2}", 1, "not a condition"},
    };
    for (const Case& c : cases) {
        auto e = regtest::thrown([&] { RMSelection::compile(c.text, row); });
        EXPECT_EQ(e.errc, RMTableErrc::kSelection) << c.text;
        std::string at = "Selection error at position " + std::to_string(c.position);
        EXPECT_TRUE(e.what.rfind(at, 0) == 0 && e.says(c.detail)) << c.text << ": " << e.what;
        EXPECT_EQ(e.catalog, "tarn.rmf.cat");
        EXPECT_EQ(e.msgNum, 1);
    }
}

TEST(RegistrySelection, PreviousValuesNeedASourceThatHasThem) {
    FakeRow row;
    row.withPrevious = false;
    auto e = regtest::thrown([&] { RMSelection::compile("PowerStatus!=PowerStatus@P", row); });
    EXPECT_TRUE(e.says("position 14: previous values")) << e.what;
}

TEST(RegistrySelection, InputBeyondTheLimitsIsRefusedNotRecursedInto) {
    FakeRow row;
    std::string deep(kRMMaxSelectionDepth + 1, '(');
    deep += "Status";
    EXPECT_THROW(RMSelection::compile(deep, row), RMTableError);
    std::string longText(kRMMaxSelectionLength + 1, ' ');
    EXPECT_THROW(RMSelection::compile(longText, row), RMTableError);
    // A long flat chain is fine: it does not nest.
    std::string chain = "Status";
    for (int i = 0; i < 5000; ++i) {
        chain += " || Status";
    }
    EXPECT_TRUE(run(row, chain.c_str()));
}

TEST(RegistrySelection, ParametersAreBoundByNameAndTypeChecked) {
    FakeRow row;
    RMSelParams params;
    zn_resource_handle mine = regtest::handle(5);
    zn_resource_handle other = regtest::handle(6);
    params.setHandle("RH", mine);
    EXPECT_TRUE(run(row, "ResourceHandle == $RH", &params));
    params.setHandle("RH", other);  // a second set replaces the first
    EXPECT_FALSE(run(row, "ResourceHandle == $RH", &params));
    params.setString("H", "node1.rack2.example.com").setUint64("U", 0x8000000000000001ull);
    EXPECT_TRUE(run(row, "Hostname == $H && UniversalId == $U", &params));
    EXPECT_TRUE(run(row, "$U == UniversalId", &params));

    struct Case {
        const char* text;
        const char* detail;
    };
    const Case refused[] = {
        {"ResourceHandle == $NOPE", "$NOPE: no value is bound"},
        {"Hostname == $U", "$U: type mismatch"},
        {"ResourceHandle < $RH", "$RH: \"<\" orders numbers and strings"},
    };
    for (const Case& c : refused) {
        auto sel = RMSelection::compile(c.text, row);
        auto e = regtest::thrown([&] { sel->bind(&params); });
        EXPECT_EQ(e.errc, RMTableErrc::kParameter) << c.text;
        EXPECT_TRUE(e.says(c.detail)) << e.what;
    }
    EXPECT_THROW(RMSelection::compile("ResourceHandle == $RH", row)->bind(nullptr), RMTableError);
}

TEST(RegistrySelection, PlansUseIndexedEqualitiesOnlyWhenTheyCoverEveryMatch) {
    FakeRow row;
    RMSelParams params;
    params.setString("H", "h1");
    auto indexed = [&](int c) {
        return row.names[static_cast<size_t>(c)] == "Hostname" ||
               row.names[static_cast<size_t>(c)] == "UniversalId";
    };
    struct Case {
        const char* text;
        bool planned;
        size_t probes;
    };
    const Case cases[] = {
        {"Hostname == \"a\"", true, 1},
        {"\"a\" == Hostname", true, 1},
        {"Hostname == $H", true, 1},
        {"Hostname IN {\"a\", \"b\", \"c\"}", true, 3},
        {"Hostname == \"a\" && PowerStatus == 1", true, 1},
        {"PowerStatus == 1 && (UniversalId == 5 || UniversalId == 6)", true, 2},
        {"Hostname == \"a\" || UniversalId == 5", true, 2},
        {"Hostname == \"a\" || PowerStatus == 1", false, 0},
        {"Hostname != \"a\"", false, 0},
        {"!(Hostname == \"a\")", false, 0},
        {"Hostname =~ \"a\"", false, 0},
        {"Hostname == ManagerType", false, 0},
        {"PowerStatus == 1", false, 0},
        {"*", false, 0},
    };
    for (const Case& c : cases) {
        auto sel = RMSelection::compile(c.text, row);
        std::vector<RMSelProbe> probes;
        RMSelBinding b = sel->bind(&params);
        EXPECT_EQ(sel->plan(b, indexed, probes), c.planned) << c.text;
        EXPECT_EQ(probes.size(), c.probes) << c.text;
    }
}

}  // namespace
