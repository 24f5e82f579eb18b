"""Parts of the experiment chaos: disturbed lines, lost packets, and names that can't be resolved."""
