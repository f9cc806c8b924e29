"""A batch in one process: its shards, its records, its manifest."""
