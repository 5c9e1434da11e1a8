"""What the scenarios are made of: torrents, wires, servers that misbehave, and the built program beside them."""
