# Placeholder, filled below.
