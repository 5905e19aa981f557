#include "larkspan/provider/ExtensionMain.h"

#include "extensions/caches/CachesExtension.h"

int main() { return larkspan::extensionMain<larkspan::caches::CachesExtension>(); }
