// The smallest host: one include, one library.
#include <zorvopkcs11.h>

#include <iostream>

int main() {
    p11::set_log_level(60000);
    try {
        throw p11::process_error(201, "pin incorrect");
    } catch (const p11::process_error& e) {
        std::cout << e.what() << "\n" << p11::CKR2Str(CKR_PIN_INCORRECT) << "\n";
    }
    return 0;
}
