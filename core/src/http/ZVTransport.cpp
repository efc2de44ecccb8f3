#include <ZorvaneCoreKit/ZVTransport.h>

// Out of line so that the vtable has one home, in the core library.
ZVTransport::~ZVTransport() = default;
