"""One kind of attack a module: `UNIT` names what is counted, `attempt(place)` makes one round and returns the count."""
