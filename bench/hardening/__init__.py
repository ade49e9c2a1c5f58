"""What the hardening options cost."""
