#include "extensions/trash/TrashExtension.h"
#include "larkspan/provider/ExtensionMain.h"

int main() { return larkspan::extensionMain<larkspan::trash::TrashExtension>(); }
