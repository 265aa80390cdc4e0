// Many threads, each with its own session on one module, open, enumerate and log in at once,
// then all try to take the signing engine at the same moment, half with a streaming Signer and
// half with a one-shot signature: exactly one wins, every other gets code 300, and the winner's
// signature verifies. scripts/reliability.sh runs this under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
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
#include "test_fixture.h"
#include "test_openssl.h"
#include "testprov.h"

namespace {

constexpr CK_SLOT_ID kSlot = 4;
constexpr int kThreads = 8;
constexpr int kRounds = 12;

// Releases every waiting thread at once.
class Gate {
public:
    explicit Gate(int parties) : left_(parties) {}
    void arriveAndWait() {
        std::unique_lock<std::mutex> lock(mu_);
        if (--left_ == 0) {
            cv_.notify_all();
            return;
        }
        cv_.wait(lock, [this] { return left_ == 0; });
    }

private:
    std::mutex mu_;
    std::condition_variable cv_;
    int left_;
};

struct Contender {
    bool streaming = false;
    bool won = false;
    int code = 0;
    std::string message;
    std::string pem;
    std::string data;
    std::shared_ptr<p11::Signer> signer;  // a winning Signer holds the engine until the round ends
    std::string unexpected;
};

class Concurrency : public ProviderTest {
protected:
    void TearDown() override {
        p11::engine_in_use = false;
        ProviderTest::TearDown();
    }
};

TEST_F(Concurrency, ExactlyOneSignerAtATime) {
    tp::Token token(kSlot);
    token.pin("1234");
    const CK_OBJECT_HANDLE key = reliability::installRsa(token, {0x31});
    // The key signs whatever the login state: a loser's logout may land before the winner signs.
    const CK_BBOOL no = CK_FALSE;
    ASSERT_EQ(tp_set_attribute(key, CKA_PRIVATE, &no, sizeof no), 0);
    auto module = load();
    auto slot = firstSlot(module);

    int oneShotWins = 0, streamingWins = 0;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        p11::engine_in_use = false;
        std::vector<Contender> contenders(kThreads);
        Gate ready(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            Contender& c = contenders[static_cast<size_t>(t)];
            c.streaming = (t + round) % 2 == 0;
            c.data = "round " + std::to_string(round) + " thread " + std::to_string(t);
            threads.emplace_back([&c, &ready, slot] {
                try {
                    auto session = slot->openSession(0);
                    auto certs = session->enumerateCerts();
                    auto login = session->login("1234", 4);
                    ready.arriveAndWait();
                    try {
                        if (c.streaming) {
                            c.signer = certs->at(0)->startSigning(std::move(login), true);
                            c.won = true;
                            c.signer->addData(c.data.data(), static_cast<int>(c.data.size()));
                            c.pem = c.signer->finish();
                        } else {
                            c.pem = certs->at(0)->signOnIt(std::move(login), c.data.c_str(), true);
                            c.won = true;
                        }
                    } catch (const p11::process_error& e) {
                        c.code = e.code();
                        c.message = e.message();
                    }
                } catch (const std::exception& e) {
                    c.unexpected = e.what();
                }
            });
        }
        for (auto& th : threads) th.join();

        int winners = 0;
        for (const Contender& c : contenders) {
            EXPECT_EQ(c.unexpected, "");
            if (c.won) {
                ++winners;
                (c.streaming ? streamingWins : oneShotWins)++;
                auto verified = testssl::cms_verify(c.pem, reliability::rsaIdentity().certPem, nullptr);
                EXPECT_TRUE(verified.ok) << verified.log;
                EXPECT_EQ(verified.content, c.data);
            } else if (c.unexpected.empty()) {
                EXPECT_EQ(c.code, 300);
                EXPECT_EQ(c.message, "error while locking OPENSSL P11 engine");
            }
        }
        EXPECT_EQ(winners, 1);
        for (Contender& c : contenders) c.signer.reset();  // gives the engine back
        ERR_clear_error();
    }
    std::cout << "concurrency: " << kRounds << " rounds of " << kThreads << " threads, " << streamingWins
              << " streaming and " << oneShotWins << " one-shot winners" << std::endl;
    module.reset();
    EXPECT_EQ(tp_session_count(CK_SLOT_ID(-1)), 0);
}

}  // namespace
