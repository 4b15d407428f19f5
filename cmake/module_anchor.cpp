// The shared module is made of the subsystem libraries alone; this file gives the target a source.
