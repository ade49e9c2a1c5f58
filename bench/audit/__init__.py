"""What an audit record costs."""
