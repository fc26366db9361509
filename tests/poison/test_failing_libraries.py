"""A library whose archives fail under the sync's hands: whatever the device has stays."""


def test_an_app_whose_update_is_no_archive_stays(world):
    world.add("Kettle", "1.0")
    world.sync()
    (world.library / "Kettle.archive").write_bytes(b"nothing")
    world.sync()
    assert world.apps() == {"org.example.kettle": "1.0"}
