#include "dsp/ChainPrinter.h"

#include "base/Assert.h"
#include "dsp/Chain.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace Zelmar;

namespace {

std::string const c_header = "digraph signalflow {size=\"6,6\";node [style=\"filled, bold\" penwidth=1 "
                             "fillcolor=\"white\" fontname=\"Courier New\" shape=\"record\"];\n";

// input "in-1" feeding a stereo meter through a shortcut cable and an output through two port cables.
void buildSmallChain(Chain& chain)
{
    chain.addModule("input", "in-1")->setParameters(Parameters{{"b", "2"}, {"a", "1"}}, 48000);
    chain.addStereoModule("meter", "lvl");
    chain.addModule("output", "out")->setParameters(Parameters{{"interleave-pattern", "01"}}, 48000);
    chain.pullWire("out[1]", "in-1[1]");
    chain.pullWire("out[0]", "in-1[0]");
    chain.pullWire("lvl", "in-1");
    chain.compile();
}

std::vector<std::string> s_logged;

void logToList(gchar const*, GLogLevelFlags, gchar const* message, gpointer)
{
    s_logged.push_back(message);
}

class ChainPrinterTest : public testing::Test
{
protected:
    void SetUp() override
    {
        m_handler = g_log_set_handler(Tools::c_logDomain, G_LOG_LEVEL_MESSAGE, logToList, nullptr);
        s_logged.clear();
    }
    void TearDown() override { g_log_remove_handler(Tools::c_logDomain, m_handler); }

    Testing::TemporaryDirectory m_scratch{"chainprinter-XXXXXX"};
    std::string const m_dir = m_scratch.path();
    guint m_handler = 0;
};

} // namespace

TEST_F(ChainPrinterTest, DescribesEachWireSourceAndEdgeWithDotSafeIds)
{
    Chain chain(48000);
    buildSmallChain(chain);
    std::string const source = "in_1 [label=\"input 'in-1'\\l  a=1\\l  b=2\\l\"]\n";
    // Wires in destination order; the sinks lvl and out get no description of their own.
    EXPECT_EQ(ChainPrinter::describe(chain).str(),
              c_header + source + source + source + source +
                  "in_1 -> lvl\nin_1 -> lvl\nin_1 -> out\nin_1 -> out\n}");

    Chain empty(48000);
    empty.addModule("meter", "m");
    EXPECT_EQ(ChainPrinter::describe(empty).str(), c_header + "}");
}

TEST_F(ChainPrinterTest, WritesTheDotFileAndRendersItWithDot)
{
    Chain chain(48000);
    buildSmallChain(chain);
    std::string const dotFile = m_dir + "/chain.dot";
    std::string const picture = m_dir + "/chain.svg";
    EXPECT_STREQ(ChainPrinter::c_dotFile, "/tmp/liborvandeldsp.dot");

    ChainPrinter::print(chain, "svg", picture, dotFile);
    EXPECT_EQ(m_scratch.read("chain.dot"), ChainPrinter::describe(chain).str());
    std::string const svg = m_scratch.read("chain.svg");
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    EXPECT_NE(svg.find("in_1"), std::string::npos);
    ASSERT_EQ(s_logged.size(), 1u);
    EXPECT_EQ(s_logged[0], "invoking dot -Tsvg " + dotFile);

    // No output file: dot still runs and its picture is dropped.
    ChainPrinter::print(chain, "svg", "", dotFile);
    EXPECT_EQ(s_logged.size(), 2u);

    // An unwritable output is only logged.
    ChainPrinter::print(chain, "svg", m_dir + "/missing/chain.svg", dotFile);
    ASSERT_EQ(s_logged.size(), 4u);
    EXPECT_EQ(s_logged[2].rfind("invoking dot", 0), 0u);
    EXPECT_NE(s_logged[3].find("No such file"), std::string::npos) << s_logged[3];
}
