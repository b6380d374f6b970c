int SynthPlaceholder() { return 0; }
