#pragma once
// Umbrella header: everything a host needs.
#include "Certificate.h"
#include "Module.h"
#include "Session.h"
#include "Signer.h"
#include "Slot.h"
#include "enc_converter.h"
#include "libscdl.h"
#include "mdlpkcs11.h"
#include "p11.h"
#include "p11_ossl_eng.h"
