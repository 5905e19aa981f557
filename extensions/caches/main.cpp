#include "extensions/caches/CachesExtension.h"
#include "larkspan/provider/ExtensionMain.h"

int main() { return larkspan::extensionMain<larkspan::caches::CachesExtension>(); }
