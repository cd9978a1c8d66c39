-- WirePlumber without a user's session: nobody else wants the sound cards, and no portal grants access.
alsa_monitor.properties["alsa.reserve"] = false
default_access.properties["enable-flatpak-portal"] = false
