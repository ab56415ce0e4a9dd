// The workspace of the real embedded interpreter: display texts, change batches, rename and
// edit, and variables that misbehave.

#include "HostTestRig.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace wsb_host_test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

std::string x(const std::string& a, const std::string& b) {
    return a + kTimes + b;
}

EventInfo changed(Names names) {
    return {EventType::VARIABLE_CHANGED, std::move(names)};
}
EventInfo deleted(Names names) {
    return {EventType::VARIABLE_DELETED, std::move(names)};
}

} // namespace

TEST(WorkspaceHost, TextsArePythonsOwnWordsAndNumbers) {
    HostRig rig;
    rig.run("import numpy as np, pandas as pd\n"
            "r = 2.5\nn = 7\nb = True\nh = np.float32(0.5)\nz = None\n"
            "s = 'hello'\nl = [1, 'a', 3.0]\nt = (1, 2)\nd = {'k': 1, 'm': [2]}\n"
            "m = np.arange(12.0).reshape(3, 4)\n"
            "v = np.array([-3, 1, 1, 7], dtype=np.int8)\n"
            "masked = np.ma.masked_array([1, 2, 3], mask=[0, 1, 0])\n"
            "wide = np.arange(40.0)\n"
            "frame = pd.DataFrame({'a': [1, 2, 3, 4, 5], 'b': [1.5, 2.5, 3.5, 4.5, np.nan],\n"
            "                      'c': list('vwxyz')})\n"
            "series = pd.Series([1.0, np.nan, 3.0])\n");
    struct Expected {
        std::string name, size, className, value;
        bool summary;
        std::string icon;
    };
    const Expected table[] = {
        {"r", x("1", "1"), "float", "2.5", false, "wsb-icon-numeric"},
        {"n", x("1", "1"), "int", "7", false, "wsb-icon-numeric"},
        {"b", x("1", "1"), "bool", "True", false, "wsb-icon-bool"},
        {"h", x("1", "1"), "float32", "0.5", false, "wsb-icon-numeric"},
        {"z", x("1", "1"), "NoneType", "None", false, "wsb-icon-object"},
        {"s", "5", "str", "'hello'", false, "wsb-icon-text"},
        {"l", "3", "list", "[1, 'a', 3.0]", false, "wsb-icon-sequence"},
        {"t", "2", "tuple", "(1, 2)", false, "wsb-icon-sequence"},
        {"d", "2", "dict", "{'k': 1, 'm': [2]}", false, "wsb-icon-mapping"},
        {"m", x("3", "4"), "ndarray float64", "[[ 0. 1. 2. 3.] [ 4. 5. 6. 7.] [ 8. 9. 10. 11.]]",
         false, "wsb-icon-array"},
        {"v", "4", "ndarray int8", "[-3 1 1 7]", false, "wsb-icon-array"},
        {"masked", "3", "MaskedArray int64", "[1 -- 3]", false, "wsb-icon-array"},
        // numpy's own summary of a long array.
        {"wide", "40", "ndarray float64", "[ 0. 1. 2. ... 37. 38. 39.]", true, "wsb-icon-array"},
        {"frame", x("5", "3"), "DataFrame", "DataFrame 5" + kTimes + "3: a, b, c", true,
         "wsb-icon-table"},
        {"series", "3", "Series float64", "Series 3: [1.0, nan, 3.0]", true, "wsb-icon-table"},
    };
    for (const Expected& e : table) {
        const WSVariable v = rig.fetchOne(e.name);
        EXPECT_EQ(v.size, e.size) << e.name;
        EXPECT_EQ(v.className, e.className) << e.name;
        EXPECT_EQ(v.value, e.value) << e.name;
        EXPECT_EQ(v.isSummary, e.summary) << e.name;
        EXPECT_EQ(v.iconClass, e.icon) << e.name;
        EXPECT_FALSE(v.bytes.empty()) << e.name;
    }
    const auto stats = [&](const std::string& name) {
        const WSVariable v = rig.fetchOne(name);
        return std::vector<std::string>{v.min,    v.max,  v.range, v.mean,
                                        v.median, v.mode, v.var,   v.std};
    };
    using Texts = std::vector<std::string>;
    EXPECT_EQ(stats("m"), (Texts{"0", "11", "11", "5.5", "5.5", "0", "13", "3.6056"}));
    EXPECT_EQ(stats("v"), (Texts{"-3", "7", "10", "1.5", "1", "1", "17", "4.1231"}))
        << "no wrap-around in the element type";
    // NaN is skipped as pandas skips it; the numeric columns of a frame count together.
    EXPECT_EQ(stats("series"), (Texts{"1", "3", "2", "2", "2", "1", "2", "1.4142"}));
    EXPECT_EQ(stats("frame")[0], "1");
    EXPECT_EQ(stats("frame")[1], "5");
    EXPECT_EQ(stats("masked")[3], "2") << "masked elements do not count";
    EXPECT_EQ(stats("s"), Texts(8));
    EXPECT_EQ(stats("l"), Texts(8)) << "a list with text has none";
    // Statistics only when asked and within the element limit.
    EXPECT_EQ(rig.fetchOne("wide", true, 40).mean, "19.5");
    EXPECT_EQ(rig.fetchOne("wide", true, 39).mean, "");
    EXPECT_EQ(rig.fetchOne("wide", false).mean, "");
}

TEST(WorkspaceHost, SpecialNumbersComplexValuesAndTheMemoryReallyHeld) {
    HostRig rig;
    rig.run("import numpy as np\n"
            "odd = np.array([1.0, np.nan, np.inf])\nneg = np.array([-np.inf, 1.0])\n"
            "nothing = np.array([np.nan, np.nan])\nempty = np.array([])\n"
            "waves = np.array([3 + 4j, 1j])\nnumbers = [1, 2, 3.5]\n"
            "base = np.zeros(1000)\nview = base[::10]\n"
            "spread = np.broadcast_to(np.float64(1), (100000, 100000))\n"
            "nested = [list(range(100)), {'k': 'v' * 1000}]\n"
            "long_text = 'y' * 500\n");
    EXPECT_EQ(rig.fetchOne("odd").value, "[ 1. nan inf]");
    EXPECT_EQ(rig.fetchOne("odd").max, "Inf");
    EXPECT_EQ(rig.fetchOne("neg").range, "Inf");
    EXPECT_EQ(rig.fetchOne("nothing").mean, "NaN") << "all NaN gives NaN";
    EXPECT_EQ(rig.fetchOne("empty").min, "");
    EXPECT_EQ(rig.fetchOne("empty").bytes, "0");
    EXPECT_EQ(rig.fetchOne("waves").max, "5") << "complex values by their magnitude";
    EXPECT_EQ(rig.fetchOne("numbers").mean, "2.1667");
    // Bytes: what is owned, what a view spans, not what its shape suggests.
    EXPECT_EQ(rig.fetchOne("base").bytes, "8000");
    EXPECT_EQ(rig.fetchOne("view").bytes, "7928");
    EXPECT_EQ(rig.fetchOne("spread").bytes, "8");
    EXPECT_GT(std::stol(rig.fetchOne("nested").bytes), 1000 + 100 * 28);
    // Long text is cut and marked as not the whole value.
    const WSVariable text = rig.fetchOne("long_text");
    EXPECT_EQ(text.size, "500");
    EXPECT_TRUE(text.isSummary);
    EXPECT_LE(text.value.size(), 80U);
}

TEST(WorkspaceHost, FetchFillsOnlyTheAskedFieldsAndMarksVanishedNamesDirty) {
    HostRig rig;
    rig.run("import numpy as np\na = np.ones(3)\n");
    const auto records = rig.fetch({"a", "gone"}, {"Name", "Size"});
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].size, "3");
    EXPECT_EQ(records[0].value, "");
    EXPECT_EQ(records[0].mean, "");
    EXPECT_FALSE(records[0].isDirty);
    EXPECT_EQ(records[1], (WSVariable{.name = "gone", .isDirty = true}));
}

TEST(WorkspaceHost, BatchesReportRebindingInPlaceChangesDeletionAndClearing) {
    HostRig rig;
    rig.takeBatches();
    rig.run("import numpy as np\nimport os\ndef f(): pass\nclass K: pass\n_hidden = 1\n"
            "a = 1.5\nv = np.zeros(3)\nbig = np.zeros(1000000)\nl = [1]\nd = {}\n");
    EXPECT_THAT(rig.takeBatches(), ElementsAre(ElementsAre(changed({"a", "big", "d", "l", "v"}))));

    rig.run("print('nothing changes')");
    EXPECT_TRUE(rig.takeBatches().empty());

    rig.run("a = 2.5\nv[1] = 4\nbig[:] = 1\nl.append(2)\nd['k'] = 0\n");
    EXPECT_THAT(rig.takeBatches(), ElementsAre(ElementsAre(changed({"a", "big", "d", "l", "v"}))));

    rig.run("v = v\nw = v\ndel a\ndel l\n"); // the same object under a new name
    EXPECT_THAT(rig.takeBatches(), ElementsAre(ElementsAre(changed({"w"}), deleted({"a", "l"}))));

    rig.run("del big, d, v, w\n");
    EXPECT_THAT(rig.takeBatches(),
                ElementsAre(ElementsAre(EventInfo{EventType::WORKSPACE_CLEARED, {}})));
    EXPECT_TRUE(rig.host->variableNames().empty());
}

TEST(WorkspaceHost, EveryInPlaceChangeIsSeenAndNothingElseIsReported) {
    HostRig rig;
    rig.run("import numpy as np, pandas as pd, collections\n"
            "class Point:\n"
            "    def __init__(self): self.x = 1\n"
            "df = pd.DataFrame({'a': [1, 2], 'b': ['x', 'y']})\n"
            "series = pd.Series([1.0, 2.0], index=['p', 'q'])\n"
            "queue = collections.deque([1])\n"
            "ordered = collections.OrderedDict(a=1)\n"
            "counts = collections.defaultdict(int)\n"
            "raw = bytearray(b'ab')\n"
            "masked = np.ma.masked_array([1, 2, 3], mask=[0, 1, 0])\n"
            "point = Point()\n"
            "large = np.zeros(100000)\n"
            "strided = np.zeros((4, 6))[:, ::2]\n"
            "nested = {'inner': [1, [2]]}\n"
            "pairs = ([1], 2)\n");
    rig.takeBatches();
    const std::vector<std::pair<const char*, const char*>> changes = {
        {"df.loc[0, 'a'] = 999", "df"},
        {"df.index = ['r', 's']", "df"},
        {"series['p'] = 5.0", "series"},
        {"queue.append(2)", "queue"},
        {"ordered['a'] = 2", "ordered"},
        {"counts['k'] += 1", "counts"},
        {"raw.extend(b'c')", "raw"},
        {"masked[0] = 7", "masked"},
        {"masked.mask[2] = True", "masked"},
        {"point.x = 2", "point"},
        {"large[5:10] = 99", "large"},
        {"strided[3, 2] = 1", "strided"},
        {"nested['inner'][1].append(3)", "nested"},
        {"pairs[0].append(1)", "pairs"},
    };
    for (const auto& [code, name] : changes) {
        rig.run(code);
        EXPECT_THAT(rig.takeBatches(), ElementsAre(ElementsAre(changed({name})))) << code;
    }
    rig.run("total = large.sum() + df['a'].sum() + series.mean() + len(queue) + point.x\n"
            "text = repr(masked) + str(df) + repr(nested)\n");
    EXPECT_THAT(rig.takeBatches(), ElementsAre(ElementsAre(changed({"text", "total"}))))
        << "reading values changes nothing";
}

TEST(WorkspaceHost, ShowAllListsModulesFunctionsAndHiddenNames) {
    HostRig rig({.showAll = true});
    rig.run("import os\ndef f(): pass\n_hidden = 1\n");
    const Names names = rig.host->variableNames();
    for (const char* name : {"os", "f", "_hidden", "__builtins__"})
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    EXPECT_EQ(rig.fetchOne("os").className, "module");
}

TEST(WorkspaceHost, TriggerResendsEveryNameAndDropsNamesAnsweredAsVanished) {
    HostRig rig;
    rig.run("a = 1\nb = 2\n");
    rig.takeBatches();
    rig.fetch({"ghost", "a"});
    rig.host->triggerFunction()();
    rig.wait();
    EXPECT_THAT(rig.takeBatches(),
                ElementsAre(ElementsAre(deleted({"ghost"}), changed({"a", "b"}))));
}

TEST(WorkspaceHost, RenameAndEditChangeTheWorkspaceOrAreRefusedLosingNothing) {
    HostRig rig;
    rig.run("a = [1, 2]\nb = 'keep'\n");
    rig.takeBatches();

    rig.host->rename("a", "c");
    rig.wait();
    EXPECT_THAT(rig.takeBatches(), ElementsAre(ElementsAre(changed({"c"}), deleted({"a"}))));
    EXPECT_TRUE(rig.takeMessages().empty());

    // Refused: a bad identifier, a keyword, a taken name, an unknown variable.
    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"c", "1x"}, {"c", "class"}, {"c", "b"}, {"nope", "fresh"}})
        rig.host->rename(from, to);
    const auto refusals = rig.takeMessages();
    ASSERT_EQ(refusals.size(), 4U);
    EXPECT_THAT(refusals[0], HasSubstr("not a valid variable name"));
    EXPECT_THAT(refusals[1], HasSubstr("not a valid variable name"));
    EXPECT_THAT(refusals[2], HasSubstr("the name is taken"));
    EXPECT_THAT(refusals[3], HasSubstr("no such variable"));
    EXPECT_EQ(rig.run("print(c, b)"), "[1, 2] keep\n");
    EXPECT_TRUE(rig.takeBatches().empty());

    rig.host->editValue("c", "[n * 10 for n in c]");
    rig.wait();
    EXPECT_THAT(rig.takeBatches(), ElementsAre(ElementsAre(changed({"c"}))));
    EXPECT_EQ(rig.fetchOne("c").value, "[10, 20]");

    for (const auto& text : {"1/0", "(", "exit()", "undefined_name"})
        rig.host->editValue("b", text);
    rig.host->editValue("missing", "1");
    const auto failures = rig.takeMessages();
    ASSERT_EQ(failures.size(), 5U);
    EXPECT_THAT(failures[0], HasSubstr("ZeroDivisionError"));
    EXPECT_THAT(failures[1], HasSubstr("SyntaxError"));
    EXPECT_THAT(failures[2], HasSubstr("SystemExit"));
    EXPECT_THAT(failures[3], HasSubstr("NameError"));
    EXPECT_THAT(failures[4], HasSubstr("no such variable"));
    EXPECT_EQ(rig.fetchOne("b").value, "'keep'");
}

TEST(WorkspaceHost, RecordsAreFilledByColumnKeyAndAMalformedAnswerLosesOnlyItsCells) {
    HostRig rig;
    // Replace the helper's describe the way user code could reach it.
    rig.run("import sys\n"
            "helper = sys.modules['_wsbrowser_host']\n"
            "helper.describe = lambda ns, name, *rest: (\n"
            "    {'Var': 'v', 'Std': 's', 'Name': name, 'Size': 7, 'isDirty': 1, 'Extra': 'x'}\n"
            "    if name == 'a' else ['not', 'a', 'record'])\n"
            "a = b = 1\n");
    const WSVariable a = rig.fetchOne("a");
    EXPECT_EQ(a, (WSVariable{.name = "a", .std = "s", .var = "v"}))
        << "keys, not positions, say which field a text fills; text only, True only";
    EXPECT_EQ(rig.fetchOne("b").value, "<unavailable>");
}

TEST(WorkspaceHost, MisbehavingObjectsGetPlaceholdersAndTheHostCarriesOn) {
    HostRig rig({.reprBudget = std::chrono::milliseconds(200)});
    rig.run("class Raises:\n"
            "    def __repr__(self): raise ValueError('no')\n"
            "    def __len__(self): raise RuntimeError('no')\n"
            "class Huge:\n"
            "    def __repr__(self): return 'x' * 10_000_000\n"
            "class NotText:\n"
            "    def __repr__(self): return 42\n"
            "class Endless:\n"
            "    def __repr__(self):\n"
            "        while True: pass\n"
            "class Sleeps:\n"
            "    calls = 0\n"
            "    def __repr__(self):\n"
            "        Sleeps.calls += 1\n"
            "        import time; time.sleep(30)\n"
            "class Nested(list): pass\n"
            "raises, huge, not_text, endless = Raises(), Huge(), NotText(), Endless()\n"
            "sleeps = Sleeps()\n"
            "deep = []\n"
            "for _ in range(100000): deep = [deep]\n"
            "holder = [Raises()]\n");
    const WSVariable raises = rig.fetchOne("raises");
    EXPECT_EQ(raises.value, "<Raises: repr failed: ValueError>");
    EXPECT_EQ(raises.size, "?");
    EXPECT_TRUE(raises.isSummary);
    const WSVariable huge = rig.fetchOne("huge");
    EXPECT_EQ(huge.value.size(), 80U);
    EXPECT_TRUE(huge.isSummary);
    EXPECT_EQ(rig.fetchOne("not_text").value, "<NotText: repr failed: TypeError>");
    EXPECT_EQ(rig.fetchOne("endless").value, "<Endless: repr timed out>");
    // A blocking call is broken into as well, not only a loop of bytecode.
    EXPECT_EQ(rig.fetchOne("sleeps").value, "<Sleeps: repr timed out>");
    // Until it changes, it is not tried again.
    EXPECT_EQ(rig.fetchOne("sleeps").value, "<Sleeps: repr timed out>");
    EXPECT_EQ(rig.run("print(Sleeps.calls)"), "1\n");
    rig.run("sleeps.mood = 'different'");
    EXPECT_EQ(rig.fetchOne("sleeps").value, "<Sleeps: repr timed out>");
    EXPECT_EQ(rig.run("print(Sleeps.calls)"), "2\n");
    EXPECT_EQ(rig.fetchOne("deep").size, "1");
    EXPECT_THAT(rig.fetchOne("holder").value, HasSubstr("Raises"));

    // The interpreter is still usable, and nothing stray is raised into later code.
    EXPECT_EQ(rig.run("print(sum(range(10**6)))"), "499999500000\n");
}

TEST(WorkspaceHost, ConsoleCodeEchoesCapturesAndReportsErrors) {
    HostRig rig;
    EXPECT_EQ(rig.run("x = 20\nprint('out')\nx + 1"), "out\n21\n");
    auto [output, failed] = rig.host->execute("import sys\nsys.stderr.write('e\\n')\n1/0");
    EXPECT_TRUE(failed);
    EXPECT_THAT(output, HasSubstr("e\n"));
    EXPECT_THAT(output, HasSubstr("ZeroDivisionError"));
    EXPECT_THAT(output, ::testing::Not(HasSubstr("wsbrowser_host")));
    std::tie(output, failed) = rig.host->execute("raise SystemExit(3)");
    EXPECT_TRUE(failed);
    std::tie(output, failed) = rig.host->execute("print('z' * 3_000_000)");
    EXPECT_FALSE(failed);
    EXPECT_LT(output.size(), 1100000U);
    EXPECT_THAT(output, HasSubstr("[output cut]"));
    EXPECT_TRUE(rig.host->needsMoreInput("for i in range(2):\n"));
    EXPECT_FALSE(rig.host->needsMoreInput("x = 1\n"));
}

TEST(WorkspaceHost, AnswersAreHandedOverOffTheInterpreterThread) {
    // A receiver that takes its time (a page being built and published) must not hold up the
    // interpreter: Python work posted meanwhile runs before the receiver returns.
    HostRig rig;
    rig.run("a = 1");
    std::promise<bool> interpreterWasFree;
    rig.host->displayFunction()({"a"}, {"Name"}, false, 0, [&](const std::vector<WSVariable>&) {
        auto ran = std::make_shared<std::promise<void>>();
        auto done = ran->get_future();
        PythonEnvironment::interpreter()->post([ran] { ran->set_value(); });
        interpreterWasFree.set_value(done.wait_for(std::chrono::seconds(10)) ==
                                     std::future_status::ready);
    });
    EXPECT_TRUE(interpreterWasFree.get_future().get());
}

TEST(WorkspaceHost, EditTextsRecreateTheValueExactlyOrSayWhyNot) {
    HostRig rig;
    rig.run("import numpy as np\n"
            "s = 'x' * 136\nl = list(range(100))\nsmall = np.array([-3, -1, 0, 2, 7], np.int8)\n"
            "nan = float('nan')\nnested = {'a': [1, 2.5, (3,)], 'b': None}\n"
            "big = list(range(100000))\nobj = object()\n");
    const auto editText = [&](const std::string& name) {
        std::promise<std::pair<bool, std::string>> answer;
        rig.host->editText(name, [&answer](bool editable, std::string text) {
            answer.set_value({editable, std::move(text)});
        });
        return answer.get_future().get();
    };
    // Committing the editor's first text writes back exactly what was there, type and all.
    for (const char* name : {"s", "l", "small", "nan", "nested"}) {
        const auto [editable, text] = editText(name);
        ASSERT_TRUE(editable) << name << ": " << text;
        rig.run("before = " + std::string(name) + "\ndel np\n");
        rig.host->editValue(name, text);
        EXPECT_EQ(rig.run("import numpy as np\n"
                          "print(type(before) is type(" +
                          std::string(name) + "), repr(before) == repr(" + std::string(name) +
                          "), getattr(" + std::string(name) + ", 'dtype', ''))"),
                  std::string("True True ") + (std::string(name) == "small" ? "int8" : "") + "\n")
            << name << " from " << text;
    }
    EXPECT_TRUE(rig.takeMessages().empty());
    const auto big = editText("big");
    EXPECT_FALSE(big.first);
    EXPECT_THAT(big.second, HasSubstr("too many"));
    EXPECT_THAT(editText("obj").second, HasSubstr("console"));
    EXPECT_THAT(editText("ghost").second, HasSubstr("no variable"));
}
