#include "config/WidgetConfig.h"

// Placeholder until the configuration record lands.
WidgetConfig::WidgetConfig(WidgetInstaller* installer) : installer(installer) {}
WidgetConfig::~WidgetConfig() {}
