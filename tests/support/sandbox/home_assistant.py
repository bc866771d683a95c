"""Checks a discovery message in the way in which Home Assistant reads it."""

import re

OBJECT_ID = re.compile(r"[A-Za-z0-9_-]+")

DEVICE_KEYS = {"identifiers", "name", "manufacturer", "model", "sw_version", "hw_version",
               "serial_number", "configuration_url", "suggested_area"}
ORIGIN_KEYS = {"name", "sw_version", "support_url"}
SHARED_KEYS = {"device", "origin", "components", "availability", "availability_topic", "qos",
               "state_topic"}

# The keys of a component of each platform, besides those of all platforms; required ones first.
COMMON_KEYS = {"platform", "unique_id", "name", "availability_topic", "payload_available",
               "payload_not_available", "qos"}
PLATFORM_KEYS = {
    "siren": ({"command_topic"},
              {"state_topic", "available_tones", "support_volume_set", "support_duration"}),
    "sensor": ({"state_topic"}, {"value_template", "json_attributes_topic"}),
    "binary_sensor": ({"state_topic"}, {"payload_on", "payload_off", "device_class"}),
    "button": ({"command_topic"}, {"payload_press"}),
}


def check_topic(text):
    assert isinstance(text, str) and text and not set(text) & set("+#\0"), text


def check_component(component):
    platform = component["platform"]
    required, optional = PLATFORM_KEYS[platform]
    assert required <= set(component), component
    assert set(component) <= COMMON_KEYS | required | optional, component
    assert isinstance(component["unique_id"], str) and component["unique_id"]
    for key, value in component.items():
        if key.endswith("_topic"):
            check_topic(value)
    tones = component.get("available_tones", [])
    assert all(isinstance(tone, str) and tone for tone in tones)
    assert len(set(tones)) == len(tones), "two tones cannot be told apart"
    for key in ("support_volume_set", "support_duration"):
        assert isinstance(component.get(key, True), bool)


def check_discovery(topic, message, prefix="homeassistant"):
    """Fails if Home Assistant would refuse the message `message`, an object, on `topic`."""
    assert topic.startswith(f"{prefix}/"), topic
    kind, object_id, last = topic.removeprefix(f"{prefix}/").split("/")
    assert (kind, last) == ("device", "config"), topic
    assert OBJECT_ID.fullmatch(object_id), object_id
    assert set(message) <= SHARED_KEYS and {"device", "origin", "components"} <= set(message)
    device, origin = message["device"], message["origin"]
    assert set(device) <= DEVICE_KEYS and device["identifiers"], device
    assert set(origin) <= ORIGIN_KEYS and origin["name"], origin
    assert message.get("qos", 0) in (0, 1, 2)
    components = message["components"]
    assert components
    for component in components.values():
        check_component(component)
    identifiers = [component["unique_id"] for component in components.values()]
    assert len(set(identifiers)) == len(identifiers)
    return components


def check_siren_state(state, tones):
    assert set(state) <= {"state", "tone", "volume_level", "duration"}, state
    assert state["state"] in ("ON", "OFF")
    assert "tone" not in state or state["tone"] in tones
