"""One fault in the life of an agent: where it can strike, the lives, and what each may come to."""
