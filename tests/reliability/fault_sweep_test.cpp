// Fault sweep: along the whole road of a signature, the n-th provider call fails, for every n
// until a run passes the end of the road untouched. Each run must end as the library promises
// for the call that failed (the code and message thrown, the log line, whether the call is
// repeated), the objects' lifetimes must still make their clean-up calls, and nothing may
// crash or leak (the ASan build runs the same sweep).
#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <openssl/err.h>

#include "Certificate.h"
#include "Module.h"
#include "Session.h"
#include "Signer.h"
#include "Slot.h"
#include "p11.h"
#include "p11_ossl.h"
#include "rsa_identity.h"
#include "test_log.h"
#include "test_openssl.h"
#include "testprov.h"

namespace {

constexpr CK_SLOT_ID kSlot = 5;
const tp::Bytes kKeyId{0x42, 0x17};

void setUpToken() {
    tp_reset();
    tp::Token token(kSlot);
    token.pin("1234");
    token.mechanism(CKM_RSA_PKCS).mechanism(CKM_SHA256_RSA_PKCS);
    reliability::installRsa(token, kKeyId);
}

// What the library promises when one call of a provider function fails during a step.
struct Promise {
    int code;             // 0: the operation still succeeds; the failure is at most logged
    std::string message;  // of the process_error
    std::string logged;   // function text of the log_p11_error line; empty: no such line
    bool repeated;        // the failing call is made once more to obtain the logged value
};

Promise promise(const std::string& step, const tp_call& failed, CK_RV rv) {
    const std::string f = failed.name;
    const bool signing = step == "sign" || step == "start" || step.rfind("finish", 0) == 0;
    if (f == "C_GetFunctionList") return {100, "failed to load p11 module", "", false};
    if (f == "C_Initialize") return {101, "failed to initialize p11 module", "C_Initialize", false};
    if (f == "C_GetSlotList")
        return failed.null_ptr ? Promise{102, "failed to get a number of list of slots with token",
                                         "C_GetSlotList(NULL)", true}
                               : Promise{102, "failed to get a list of slotsWithToken with token",
                                         "C_GetSlotList()", true};
    if (f == "C_GetSlotInfo") return {105, "failed to get slot info session", "C_GetSlotInfo()", true};
    if (f == "C_GetTokenInfo")
        return step == "enumerate"
                   ? Promise{103, "failed to get token info", "C_GetTokenInfo()", true}
                   : Promise{103, "failed to get a number of list of slots", "C_GetTokenInfo()", true};
    if (f == "C_GetMechanismList") return {104, "failed to get mechanizms", "C_GetMechanismList()", true};
    if (f == "C_GetMechanismInfo") return {0, "", "", false};  // that mechanism is left out
    if (f == "C_OpenSession") return {105, "failed to open session", "C_OpenSession()", true};
    if (f == "C_GetSessionInfo")
        return {105, "failed to get session information", "C_GetSessionInfo()", true};
    if (f == "C_Login") return {200, "failed to login", "C_Login()", false};
    if (f == "C_GetAttributeValue")
        return {107, "failed to get attribute value", "C_GetAttributeValue()", true};
    if (f == "C_FindObjectsInit" || f == "C_FindObjects" || f == "C_FindObjectsFinal") {
        if (signing) return {108, "failed to find private key of the certificate", f + "()", true};
        // The certificate search logs a failed step under the init call's name.
        return {106, "failed to find token's certificate",
                f == "C_FindObjectsFinal" ? "C_FindObjectsFinal()" : "C_FindObjectsInit()", true};
    }
    if (f == "C_SignInit") return {300, "error while signing finalization", "C_SignInit()", false};
    if (f == "C_Sign") {
        if (step.rfind("finish", 0) == 0 && rv == CKR_CANCEL)
            return {501, "user cancel operation", "C_Sign()", false};
        return {300, "error while signing finalization", "C_Sign()", false};
    }
    if (f == "C_Logout") return {0, "", "C_Logout()", false};
    if (f == "C_CloseSession") return {0, "", "C_CloseSession()", false};
    if (f == "C_Finalize") return {0, "", "", false};
    ADD_FAILURE() << "the library is not expected to call " << f << " (step " << step << ")";
    return {-1, "", "", false};
}

bool sameCall(const tp_call& a, const tp_call& b) {
    // Handles that a call hands out are recorded too, and a failed call hands out none.
    const bool opens = std::string(a.name) == "C_OpenSession";
    const bool finds = std::string(a.name) == "C_FindObjects";
    return std::string(a.name) == b.name && (opens || a.session == b.session) &&
           (finds || a.object == b.object) && a.mechanism == b.mechanism && a.null_ptr == b.null_ptr &&
           a.attr_count == b.attr_count && (a.attr_count == 0 || a.attr_types[0] == b.attr_types[0]);
}

std::wstring wide(const std::string& s) {
    return std::wstring(s.begin(), s.end());
}

// The objects of one pass, held as a host holds them.
struct Pass {
    std::shared_ptr<p11::Module> module;
    std::shared_ptr<p11::Slot> slot;
    std::shared_ptr<p11::Session> session;
    std::shared_ptr<p11::Certificate> cert;
    std::unique_ptr<p11::Session::LoginToken> login;
    std::shared_ptr<p11::Signer> signer;
    size_t mechanisms = 0;
    bool loggedIn = false;
    bool sessionMade = false;
    struct Signature {
        std::string pem, message;
        bool attached;
    };
    std::vector<Signature> signatures;
};

using Step = std::pair<std::string, std::function<void(Pass&)>>;

void finishMessage(Pass& p, const std::string& message) {
    p.signer->addData(message.data(), static_cast<int>(message.size()));
    p.signatures.push_back({p.signer->finish(), message, false});
}

std::vector<Step> road(bool streamed) {
    std::vector<Step> steps = {
        {"load", [](Pass& p) { p.module = std::make_shared<p11::Module>(ZORVO_TESTPROV_PATH, nullptr); }},
        {"slots",
         [](Pass& p) {
             auto slots = p.module->listTokenSlots();
             ASSERT_EQ(slots->size(), 1u);
             p.slot = slots->front();
         }},
        {"token info", [](Pass& p) { p.slot->readTokenInfo(); }},
        {"mechanisms", [](Pass& p) { p.mechanisms = p.slot->geMechanisms(CKF_SIGN)->size(); }},
        {"session",
         [](Pass& p) {
             p.session = p.slot->openSession(0);
             p.sessionMade = true;
         }},
        {"enumerate",
         [](Pass& p) {
             auto certs = p.session->enumerateCerts();
             ASSERT_EQ(certs->size(), 1u);
             p.cert = certs->front();
         }},
        {"login",
         [](Pass& p) {
             p.login = p.session->login("1234", 4);
             p.loggedIn = true;
         }},
    };
    if (!streamed) {
        steps.push_back(
            {"sign", [](Pass& p) {
                 const std::string message = "one-shot message";
                 p.signatures.push_back(
                     {p.cert->signOnIt(std::move(p.login), message.c_str(), true), message, true});
             }});
    } else {
        steps.push_back(
            {"start", [](Pass& p) { p.signer = p.cert->startSigning(std::move(p.login), false); }});
        steps.push_back({"finish1", [](Pass& p) { finishMessage(p, "first streamed message"); }});
        steps.push_back({"finish2", [](Pass& p) { finishMessage(p, "second streamed message"); }});
    }
    return steps;
}

struct Tally {
    int runs = 0;
    int faults = 0;
};
Tally& total() {
    static Tally t;
    return t;
}

class TallyPrinter : public ::testing::Environment {
public:
    void TearDown() override {
        if (total().runs > 0)
            std::cout << "fault sweep total: " << total().runs << " runs, " << total().faults
                      << " faults survived" << std::endl;
    }
};
const auto* const kTallyPrinter = ::testing::AddGlobalTestEnvironment(new TallyPrinter);

struct SweepCase {
    bool streamed;
    CK_RV rv;
};

void PrintTo(const SweepCase& c, std::ostream* os) {
    *os << (c.streamed ? "streamed, " : "one-shot, ") << p11::CKR2Str(c.rv);
}

class FaultSweep : public ::testing::TestWithParam<SweepCase> {
protected:
    void TearDown() override {
        tp_reset();
        p11::engine_in_use = false;
        ERR_clear_error();
    }

    // One pass with the n-th call failing (n 0: none). Returns whether the rule fired.
    bool runOnce(unsigned n, CK_RV rv, bool streamed, testlog::Capture& log) {
        setUpToken();
        p11::engine_in_use = false;  // the one-shot signature never gives it back
        ERR_clear_error();
        log.clear();
        if (n > 0) tp_fail_any(n, 1, rv);

        const auto steps = road(streamed);
        std::vector<int> firstCall;  // provider call index at which each step began
        Pass pass;
        std::string failedStep;
        int code = 0;
        std::string message;
        size_t done = 0;
        for (const Step& step : steps) {
            firstCall.push_back(tp_call_count(nullptr));
            try {
                step.second(pass);
            } catch (const p11::process_error& e) {
                failedStep = step.first;
                code = e.code();
                message = e.message();
                if (code != 501) break;  // a cancelled signer is ready for the next message
            } catch (const std::exception& e) {
                ADD_FAILURE() << "step " << step.first << " threw " << e.what();
                break;
            }
            if (::testing::Test::HasFatalFailure()) break;
            ++done;
        }
        const bool completed = done == steps.size() || (code == 501 && done == steps.size() - 1);
        const int roadCalls = tp_call_count(nullptr);

        // Tear down as a host would, checking the clean-up each lifetime promises.
        const bool moduleMade = pass.module != nullptr;
        pass.signer.reset();
        pass.login.reset();
        EXPECT_EQ(tp_call_count("C_Logout"), pass.loggedIn ? 1 : 0)
            << "a LoginToken logs out once when it dies";
        pass.cert.reset();
        pass.session.reset();
        EXPECT_EQ(tp_call_count("C_CloseSession"), pass.sessionMade ? 1 : 0)
            << "a Session closes once when it dies";
        pass.slot.reset();
        EXPECT_EQ(tp_call_count("C_Finalize"), 0) << "finalised before the module died";
        const int openSessions = tp_session_count(CK_SLOT_ID(-1));
        pass.module.reset();
        EXPECT_EQ(tp_call_count("C_Finalize"), moduleMade ? 1 : 0) << "a Module finalises once when it dies";
        if (streamed)
            EXPECT_FALSE(p11::engine_in_use) << "the streaming signer gives the engine back";
        else
            EXPECT_EQ(p11::engine_in_use.load(), pass.loggedIn)
                << "only the one-shot signature keeps the engine";

        const bool fired = tp_fail_any_fired() > 0;
        if (!fired) {
            EXPECT_EQ(code, 0) << message;
            EXPECT_TRUE(completed);
            EXPECT_EQ(pass.mechanisms, 2u);
            EXPECT_EQ(openSessions, 0);
        } else {
            tp_call failed{};
            EXPECT_EQ(tp_get_call(nullptr, n - 1, &failed), 0);
            EXPECT_EQ(failed.rv, rv);
            std::string step = "teardown";
            for (size_t i = 0; i < firstCall.size(); ++i)
                if (static_cast<int>(n - 1) >= firstCall[i]) step = steps[i].first;
            if (static_cast<int>(n - 1) >= roadCalls) step = "teardown";
            SCOPED_TRACE("call " + std::to_string(n) + " " + failed.name + " failed in step " + step);
            const Promise want = promise(step, failed, rv);

            if (want.code == 0) {
                EXPECT_EQ(code, 0) << message;
                EXPECT_TRUE(completed);
            } else {
                EXPECT_EQ(failedStep, step);
                EXPECT_EQ(code, want.code);
                EXPECT_EQ(message, want.message);
                EXPECT_EQ(completed, want.code == 501);
            }
            // A mechanism whose information cannot be read is left out, silently.
            const bool pastMechanisms = done > 3;
            EXPECT_EQ(pass.mechanisms, !pastMechanisms                                    ? 0u
                                       : std::string(failed.name) == "C_GetMechanismInfo" ? 1u
                                                                                          : 2u);

            // The repeat for the log is the very next call, and only where it is promised.
            tp_call next{};
            const bool hasNext = tp_get_call(nullptr, n, &next) == 0;
            if (want.repeated)
                EXPECT_TRUE(hasNext && sameCall(failed, next)) << "the failing call is repeated for the log";
            else
                EXPECT_FALSE(hasNext && sameCall(failed, next)) << "the failing call is not repeated";

            if (!want.logged.empty()) {
                // The repeat succeeds here, so a repeated call logs the repeat's CKR_OK.
                const CK_RV shown = want.repeated ? CKR_OK : rv;
                const std::string line = "PKCS11 function " + want.logged +
                                         " failed: rv = " + p11::CKR2Str(shown) + " (" +
                                         std::to_string(shown) + ")";
                EXPECT_TRUE(log.contains(wide(line))) << line;
            } else if (want.code == 100) {
                EXPECT_TRUE(
                    log.contains(wide(std::string("failed to load p11 module: ") + ZORVO_TESTPROV_PATH)));
            }
            // Sessions left open by design: the repeat of a failed C_OpenSession opened one,
            // a failed C_GetSessionInfo leaves its session, a failed close leaves it open.
            const std::string f = failed.name;
            const bool leftOpen = f == "C_OpenSession" || f == "C_GetSessionInfo" || f == "C_CloseSession";
            EXPECT_EQ(openSessions, leftOpen ? 1 : 0);
        }

        if (completed) {
            const size_t signatures = streamed ? (code == 501 ? 1u : 2u) : 1u;
            EXPECT_EQ(pass.signatures.size(), signatures);
        }
        for (const auto& s : pass.signatures) {
            auto verified = testssl::cms_verify(s.pem, reliability::rsaIdentity().certPem,
                                                s.attached ? nullptr : &s.message);
            EXPECT_TRUE(verified.ok) << verified.log;
            EXPECT_EQ(verified.content, s.message);
        }
        return fired;
    }
};

TEST_P(FaultSweep, EveryCallAlongTheRoad) {
    const SweepCase c = GetParam();
    testlog::Capture log;
    p11::set_log_level(40000);  // the checks read ERROR records only; spare the DEBUG ones
    int runs = 0, faults = 0;
    for (unsigned n = 1;; ++n) {
        ASSERT_LT(n, 1000u) << "the road never ended";
        const bool fired = runOnce(n, c.rv, c.streamed, log);
        ++runs;
        if (!fired) break;
        ++faults;
        if (HasFailure()) break;  // one broken promise is enough to read
    }
    total().runs += runs;
    total().faults += faults;
    RecordProperty("runs", runs);
    RecordProperty("faults_survived", faults);
    std::cout << "fault sweep " << (c.streamed ? "streamed" : "one-shot") << " " << p11::CKR2Str(c.rv) << ": "
              << runs << " runs, " << faults << " faults survived" << std::endl;
}

std::string caseName(const ::testing::TestParamInfo<SweepCase>& info) {
    std::string rv = p11::CKR2Str(info.param.rv);
    std::string name = (info.param.streamed ? "Streamed_" : "OneShot_") + rv.substr(4);
    return name;
}

INSTANTIATE_TEST_SUITE_P(
    Roads, FaultSweep,
    ::testing::Values(SweepCase{false, CKR_DEVICE_REMOVED}, SweepCase{false, CKR_GENERAL_ERROR},
                      SweepCase{false, CKR_SESSION_HANDLE_INVALID}, SweepCase{false, CKR_CANCEL},
                      SweepCase{true, CKR_DEVICE_REMOVED}, SweepCase{true, CKR_GENERAL_ERROR},
                      SweepCase{true, CKR_SESSION_HANDLE_INVALID}, SweepCase{true, CKR_CANCEL}),
    caseName);

}  // namespace
