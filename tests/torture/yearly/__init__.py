"""Years of an agent's life on a virtual clock: the world around it, and what it may do at which moment."""
