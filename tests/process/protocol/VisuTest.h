#pragma once

#include "tests/process/protocol/ProtocolTest.h"

/// A test of the visualisation's start. The logos go on until the test finishes them.
class VisuTest : public ProtocolTest
{
protected:
    void SetUp() override { logo().setDuration(std::nullopt); }

    /// Boots, and QV reports all that the start needs; the logos are shown when this returns.
    void bootToLogos(const sim::Daemon::tOptions& options = {})
    {
        boot(options);
        EXPECT_EQ("02", ask(req::setTime()));
        EXPECT_EQ("01", ask(req::running()));
        EXPECT_EQ("01", ask(req::address("10.0.0.5")));
        openGate();
    }

    /// The last of the conditions.
    void openGate()
    {
        EXPECT_EQ("02", ask(req::applyConfig()));
        prints("Vorlan: ApplyConfig\n"
               "Vorlan::startLogoHandler\n");
        EXPECT_TRUE(comes(sim::match::call("Start").to("logo")));
        settle();
    }

    /// The logos end; the settings are applied when this returns.
    void finishLogos()
    {
        beginSpan();
        logo().finish();
        prints("Vorlan::startLogoHandler: finished\n");
        EXPECT_TRUE(comes(sim::match::call("LoadConfig")));
    }

    void bootToVisu()
    {
        bootToLogos();
        finishLogos();
    }

    /// Applies the settings once more; the calls are what that took.
    Calls applyAgain()
    {
        EXPECT_EQ("02", ask(req::applyConfig()));
        prints("Vorlan: ApplyConfig\n");
        return callsSoFar();
    }

    void setVisu(const std::string& url, const std::string& mode = "Web")
    {
        sysd().setCfg("VisuURL", url);
        sysd().setCfg("VisuMode", mode);
    }

    /// What applying takes, with the URL as it is handed over.
    static Calls webCalls(const std::string& url)
    {
        return {"GetParamInt(24)",
                "SaveConfig()",
                R"(GetCfgString("VisuURL"))",
                R"(GetCfgString("VisuMode"))",
                "SetParamInt(0, 2)",
                "SetParamString(90, \"" + url + "\")",
                "LoadConfig()"};
    }
    static Calls vncCalls(const std::string& url, bool flag = true)
    {
        return {"GetParamInt(24)",
                "SaveConfig()",
                R"(GetCfgString("VisuURL"))",
                R"(GetCfgString("VisuMode"))",
                "SetParamInt(0, 1)",
                "SetParamString(80, \"" + url + "\")",
                "GetParamBool(92)",
                flag ? "SetParamBool(86, true)" : "SetParamBool(86, false)",
                "LoadConfig()"};
    }
    static Calls noneCalls()
    {
        return {"GetParamInt(24)", "SaveConfig()", R"(GetCfgString("VisuURL"))", "SetParamInt(0, 3)", "LoadConfig()"};
    }

    /// The calls of this span but the idle application's, which come seconds later.
    Calls callsSoFar()
    {
        Calls out = calls();
        std::erase(out, "idle.Exit()");
        return out;
    }

    /// Whatever was published has arrived.
    void settle() { signals(); }
};
