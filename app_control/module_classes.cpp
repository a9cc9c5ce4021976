// The module's class table.
