// The fault sweep: along the whole signing road, the n-th provider call fails, for every n and
// for several failures. Each run must end with the promised code, message and log line, repeat
// the failing call exactly where promised, and give back every login, session and the module.
#include "fixture.h"

namespace {

struct Road {
    std::shared_ptr<p11::Module> module;
    std::shared_ptr<p11::Slot> slot;
    std::shared_ptr<p11::Session> session;
    std::shared_ptr<p11::Certificate> cert;
    std::unique_ptr<p11::Session::LoginToken> login;
    std::shared_ptr<p11::Signer> signer;
};
using Step = std::pair<const char*, std::function<void(Road&)>>;

std::vector<Step> road(const std::string& token, const std::string& label, bool stream) {
    std::vector<Step> steps = {
        {"load", [](Road& r) { r.module = std::make_shared<p11::Module>(ZORVO_TPROV, nullptr); }},
        {"slots", [](Road& r) { r.module->listTokenSlots(); }},
        {"token",
         [token](Road& r) {
             auto slots = r.module->listTokenSlots();
             for (auto& s : *slots)
                 if (p11::p11_utf8_to_local(s->readTokenInfo()->label, 32) == token) r.slot = s;
         }},
        {"mechanisms", [](Road& r) { r.slot->geMechanisms(CKF_SIGN); }},
        {"session", [](Road& r) { r.session = r.slot->openSession(0); }},
        {"certs",
         [label](Road& r) {
             auto certs = r.session->enumerateCerts();
             for (auto& c : *certs)
                 if (c->getLabel() == label) r.cert = c;
         }},
        {"login", [](Road& r) { r.login = r.session->login("1234", 4); }},
    };
    if (!stream) {
        steps.push_back({"sign", [](Road& r) { r.cert->signOnIt(std::move(r.login), "data", true); }});
    } else {
        steps.push_back(
            {"start", [](Road& r) { r.signer = r.cert->startSigning(std::move(r.login), false); }});
        for (int i = 0; i < 2; ++i)
            steps.push_back({"finish", [](Road& r) { r.signer->addData("data", 4), r.signer->finish(); }});
    }
    steps.push_back({"end", [](Road& r) { Road gone = std::move(r); }});
    return steps;
}

struct Expect {
    const char* steps;  // where the row applies
    const char* fn;
    int nth;   // which call of fn within the step; 0: any
    int code;  // 0: the road goes on
    const char* message;
    const char* logged;  // the function text of the log line; "": none
    bool repeated;       // the failing call is made once more, for the log
};
const char* const kKey = "failed to find private key of the certificate";
const char* const kCert = "failed to find token's certificate";
const Expect kExpected[] = {
    {"load", "C_Initialize", 0, 101, "failed to initialize p11 module", "C_Initialize", false},
    {"slots token", "C_GetSlotList", 1, 102, "failed to get a number of list of slots with token",
     "C_GetSlotList(NULL)", true},
    {"slots token", "C_GetSlotList", 2, 102, "failed to get a list of slotsWithToken with token",
     "C_GetSlotList()", true},
    {"slots token", "C_GetSlotInfo", 0, 105, "failed to get slot info session", "C_GetSlotInfo()", true},
    {"token", "C_GetTokenInfo", 0, 103, "failed to get a number of list of slots", "C_GetTokenInfo()", true},
    {"mechanisms", "C_GetMechanismList", 0, 104, "failed to get mechanizms", "C_GetMechanismList()", true},
    {"mechanisms", "C_GetMechanismInfo", 0, 0, "", "", false},
    {"session", "C_OpenSession", 0, 105, "failed to open session", "C_OpenSession()", true},
    {"session", "C_GetSessionInfo", 0, 105, "failed to get session information", "C_GetSessionInfo()", true},
    {"certs", "C_GetTokenInfo", 0, 103, "failed to get token info", "C_GetTokenInfo()", true},
    {"certs", "C_FindObjectsInit", 0, 106, kCert, "C_FindObjectsInit()", true},
    {"certs", "C_FindObjects", 0, 106, kCert, "C_FindObjectsInit()", true},
    {"certs", "C_FindObjectsFinal", 0, 106, kCert, "C_FindObjectsFinal()", true},
    {"certs sign start finish", "C_GetAttributeValue", 0, 107, "failed to get attribute value",
     "C_GetAttributeValue()", true},
    {"login", "C_Login", 0, 200, "failed to login", "C_Login()", false},
    {"sign start finish", "C_FindObjectsInit", 0, 108, kKey, "C_FindObjectsInit()", true},
    {"sign start finish", "C_FindObjects", 0, 108, kKey, "C_FindObjects()", true},
    {"sign start finish", "C_FindObjectsFinal", 0, 108, kKey, "C_FindObjectsFinal()", true},
    {"sign finish", "C_SignInit", 0, 300, "error while signing finalization", "C_SignInit()", false},
    {"sign finish", "C_Sign", 0, 300, "error while signing finalization", "C_Sign()", false},
    {"sign end", "C_Logout", 0, 0, "", "C_Logout()", false},
    {"end", "C_CloseSession", 0, 0, "", "C_CloseSession()", false},
    {"end", "C_Finalize", 0, 0, "", "", false},
};

std::string name_of(const std::string& call) { return call.substr(0, call.find(' ')); }
std::string hex(CK_RV rv) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%lx", rv);
    return text;
}

void sweep(const std::string& token, const std::string& label, bool stream) {
    const auto steps = road(token, label, stream);
    p11::reg_pkcs11_engine();
    // The clean run: which step makes which call.
    fx::provider("", true);
    std::vector<size_t> ends;
    {
        Road r;
        for (const auto& s : steps) s.second(r), ends.push_back(fx::calls().size());
    }
    fx::free_engine();
    const auto clean = fx::calls();
    std::printf("[ sweep    ] %zu calls, %zu runs\n", clean.size(), 4 * clean.size());
    for (CK_RV rv : {CKR_DEVICE_REMOVED, CKR_GENERAL_ERROR, CKR_SESSION_HANDLE_INVALID, CKR_CANCEL})
        for (size_t n = 1; n <= clean.size(); ++n) {
            const std::string fn = name_of(clean[n - 1]);
            const size_t step = std::lower_bound(ends.begin(), ends.end(), n) - ends.begin();
            int nth = 0;
            for (size_t i = step ? ends[step - 1] : 0; i < n; ++i) nth += name_of(clean[i]) == fn;
            const Expect* e = nullptr;
            for (const auto& row : kExpected)
                if (fn == row.fn && (row.nth == 0 || row.nth == nth) &&
                    (" " + std::string(row.steps) + " ").find(" " + std::string(steps[step].first) + " ") !=
                        std::string::npos)
                    e = &row;
            SCOPED_TRACE(std::string("call ") + std::to_string(n) + " " + fn + " in " + steps[step].first +
                         " fails with " + p11::CKR2Str(rv));
            ASSERT_NE(e, nullptr);
            const int code = fn == "C_Sign" && rv == CKR_CANCEL && stream ? 501 : e->code;
            const std::string message = code == 501 ? "user cancel operation" : e->message;

            fx::provider("*@" + std::to_string(n) + "=" + std::to_string(rv), true);
            auto log = fx::Log::capture();
            int thrown = 0;
            std::string what;
            {
                Road r;
                try {
                    for (const auto& s : steps) s.second(r);
                } catch (const p11::process_error& x) {
                    thrown = x.code(), what = x.message();
                }
            }
            EXPECT_EQ(thrown, code);
            EXPECT_EQ(what, message);
            const auto calls = fx::calls();
            ASSERT_GE(calls.size(), n);
            EXPECT_EQ(calls[n - 1], fn + " " + hex(rv));
            if (e->code) {
                EXPECT_EQ(calls.size() > n && name_of(calls[n]) == fn, e->repeated);
            }
            if (*e->logged) {
                std::wostringstream line;
                line << L"PKCS11 function " << e->logged << L" failed: rv = " << p11::CKR2Str(rv) << L" ("
                     << rv << L")";
                EXPECT_TRUE(log->has(fx::kError, line.str())) << "no log line";
            }
            if (fn == "C_SignInit") {
                EXPECT_NE(name_of(calls.at(n)), "C_Sign") << "signed after a failed C_SignInit";
            }
            EXPECT_EQ(fx::count("C_Logout "), fx::count("C_Login 0x0"));
            // A session whose information cannot be read stays open: the library keeps it so.
            EXPECT_EQ(fx::count("C_CloseSession "),
                      fx::count("C_OpenSession 0x0") - (fn == "C_GetSessionInfo"));
            EXPECT_EQ(fx::count("C_Finalize "), fx::count("C_Initialize 0x0"));
            fx::free_engine();
        }
}

TEST(Faults, OneShotRoad) { sweep("zorvo-a", "rsa1", false); }
TEST(Faults, StreamedRoad) { sweep("zorvo-g", "gost2012_256", true); }

}  // namespace
