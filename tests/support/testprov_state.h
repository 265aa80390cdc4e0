#pragma once
// The test provider's state, shared by its PKCS#11 side and its control side.
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "testprov.h"
#include "testprov_keys.h"

namespace testprov {

using Bytes = std::vector<unsigned char>;

struct Object {
    CK_SLOT_ID slot;
    std::map<CK_ATTRIBUTE_TYPE, Bytes> attrs;
    std::shared_ptr<SignKey> key;
};

struct Token {
    CK_TOKEN_INFO info;
    Bytes pin;
    std::vector<std::pair<CK_MECHANISM_TYPE, CK_MECHANISM_INFO>> mechanisms;
    bool loggedIn = false;
};

struct Slot {
    CK_SLOT_ID id;
    CK_SLOT_INFO info;
    std::unique_ptr<Token> token;
};

struct Session {
    CK_SLOT_ID slot;
    CK_FLAGS flags;
    bool finding = false;
    std::vector<CK_OBJECT_HANDLE> found;
    size_t next = 0;
    std::shared_ptr<SignKey> signKey;  // set while a signing operation is active
};

// Calls first..last (last 0: no end) counted after `base` fail with rv.
struct Rule {
    std::string function;
    unsigned base, first, last;
    CK_RV rv;
    bool covers(unsigned call) const {
        unsigned k = call - base;
        return k >= first && (last == 0 || k <= last);
    }
};

struct Record {
    tp_call c;
    std::string text;
    std::vector<Bytes> values;  // template values, by attribute index
};

struct State {
    std::vector<Slot> slots;
    std::map<CK_OBJECT_HANDLE, Object> objects;  // handles grow, so this is insertion order
    std::map<CK_SESSION_HANDLE, Session> sessions;
    CK_OBJECT_HANDLE nextObject = 1;
    CK_SESSION_HANDLE nextSession = 1001;  // far from object handles and slot ids
    bool initialized = false;
    int inits = 0, finals = 0;
    void* initArgs = nullptr;
    bool sessionFlagsSet = false;
    CK_FLAGS sessionFlags = 0;
    std::vector<Rule> rules;
    std::map<std::string, unsigned> callsByName;  // not cleared with the log: rules count on it
    unsigned calls = 0;
    bool anyRuleSet = false;
    Rule anyRule{};
    int anyFired = 0;
    CK_ULONG attrLenExtra = 0, findCountExtra = 0;
    std::set<std::string> nullFunctions;
    std::vector<Record> log;
};

// One lock guards all of it; the lookups below expect it held.
extern std::mutex mu;
extern State st;

Slot* findSlot(CK_SLOT_ID id);
Token* findToken(CK_SLOT_ID id);
Object* findObject(CK_OBJECT_HANDLE h);

}  // namespace testprov
