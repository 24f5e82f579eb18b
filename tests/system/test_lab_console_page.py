"""The web console's page for everybody: with the keyboard, in light and dark, on a phone, and with hostile names."""

from __future__ import annotations

import pytest
from console_site import FIRST, ConsoleSite, MakeConsole
from orvel_lab import wait_until
from page_checks import contrasts, focus_top, tab_stops, unvisited
from webdriver import DOWN, END, ENTER, HOME, SPACE, TAB, UP

SECOND, THIRD = "DEVICE0000002", "DEVICE0000003"
LEAST_CONTRAST = 4.5
PHONE = 375
HOSTILE = "<img src=x onerror=document.title='broken'>"


@pytest.fixture
def site(make_console: MakeConsole) -> ConsoleSite:
    """Three agents that are connected."""
    made = make_console("--agents", "3", "--claimed", "--heartbeat", "1")
    for device in (FIRST, SECOND, THIRD):
        made.wait_connected(device)
    return made


def furnish(site: ConsoleSite) -> None:
    """Everything that the page can show is there: documents, results, opened entries."""
    site.choose(SECOND)
    site.browser.type("#chunks li:nth-child(1) textarea", "temperature 21.5")
    site.browser.click("#add-chunk")
    site.browser.choose("#chunks li:nth-child(2) select", "hex")
    site.browser.type("#chunks li:nth-child(2) textarea", "0d 0a")
    site.do("message", "send")
    site.browser.type("#advice-form [name=seconds]", "30")
    site.inject("discovery", "garbage", times=2)
    site.wait_for_text("#fault-count", "2")
    site.wait_for_text("#chosen-state", "heartbeat")
    site.browser.run("document.querySelectorAll('#documents details').forEach((part) => { part.open = true; })")
    site.browser.click("#events summary")


def focused(site: ConsoleSite) -> str:
    return site.browser.run("return document.activeElement.innerText")


def chosen(site: ConsoleSite) -> str:
    return site.text("#chosen-title")


class TestKeyboard:
    def test_the_tab_key_reaches_everything_with_a_visible_focus_and_a_name(self, site: ConsoleSite):
        site.choose(SECOND)
        site.browser.click("#hold")  # so that no new entry comes behind the focus
        stops = tab_stops(site.browser)
        assert unvisited(site.browser) == []
        assert [stop for stop in stops if stop["outline"] < 2 or not stop["shown"] or not stop["name"]] == []
        assert [stop["name"] for stop in stops[:3]] == [
            "Skip to the devices", "Skip to the commands", "Skip to the time line",
        ]
        assert sum(stop["name"] in (FIRST, SECOND, THIRD) for stop in stops) == 1  # the table is one stop

    def test_the_arrow_keys_choose_a_device(self, site: ConsoleSite):
        site.choose(FIRST)
        for key, expected in [(DOWN, SECOND), (DOWN, THIRD), (DOWN, THIRD), (UP, SECOND), (HOME, "All devices"),
                              (UP, "All devices"), (END, THIRD)]:
            site.browser.press(key)
            assert (focused(site), chosen(site)) == (expected, expected)

    def test_a_skip_link_leads_to_the_commands(self, site: ConsoleSite):
        focus_top(site.browser)
        site.browser.press(TAB, TAB, ENTER)
        assert site.browser.run("return document.activeElement.id") == "chosen"

    def test_a_message_goes_out_without_a_pointer(self, site: ConsoleSite):
        focus_top(site.browser)
        site.browser.press(TAB, TAB, TAB, TAB, TAB, DOWN, DOWN)  # three skip links, the search, then the table
        assert chosen(site) == SECOND
        while site.browser.name_of_focused() != "Chunk 1":
            site.browser.press(TAB)
        site.browser.press(*"typed")
        while site.browser.name_of_focused() != "Send":
            site.browser.press(TAB)
        site.browser.press(SPACE)
        wait_until(lambda: site.received("exec"), "the message")
        assert site.received("exec") == [b"typed"]

    def test_changes_of_devices_are_announced(self, site: ConsoleSite):
        assert site.browser.run("return document.querySelector('#announcer').getAttribute('aria-live')") == "polite"
        site.choose(THIRD)
        site.do("claim", "release")
        site.wait_for_text("#announcer", f"{THIRD} ")
        wait_until(lambda: "disconnected" in site.text("#announcer"), "the end of its session, announced")


class TestLook:
    @pytest.mark.parametrize("dark", [False, True], ids=["light", "dark"])
    def test_every_text_has_enough_contrast(self, site: ConsoleSite, dark: bool):
        furnish(site)
        site.browser.show_as(dark=dark)
        back = site.browser.run("return getComputedStyle(document.body).backgroundColor")
        assert (back == "rgb(16, 19, 25)") == dark
        measured = contrasts(site.browser)
        assert len(measured) > 60
        assert [entry for entry in measured if entry[2] < LEAST_CONTRAST] == []
        site.browser.run("document.querySelectorAll('details').forEach((part) => { part.open = false; })")
        site.browser.run("window.scrollTo(0, 0)")
        site.keep_screenshot(f"console-{'dark' if dark else 'light'}")

    def test_what_is_switched_off_and_what_fails_has_enough_contrast_too(self, site: ConsoleSite):
        for dark in (False, True):
            site.browser.show_as(dark=dark)
            site.press("fault", "fault")
            site.lab.run("drop")
            site.browser.type("#find", "nothing like this")
            assert [entry for entry in contrasts(site.browser) if entry[2] < LEAST_CONTRAST] == []

    @pytest.mark.parametrize("dark", [False, True], ids=["light", "dark"])
    def test_a_phone_shows_it_without_scrolling_sideways(self, site: ConsoleSite, dark: bool):
        site.browser.show_as(width=PHONE, height=812, dark=dark, phone=True)
        furnish(site)
        assert site.browser.run("return window.innerWidth") == PHONE
        assert site.browser.run("return document.documentElement.scrollWidth") == PHONE
        beyond = "[...document.querySelectorAll('main *, header *')].filter((element) => element.checkVisibility()"
        beyond += " && element.getBoundingClientRect().right > innerWidth + 1).map((element) => element.outerHTML)"
        assert site.browser.run(f"return {beyond}") == []
        site.browser.run("window.scrollTo(0, 0)")
        site.keep_screenshot(f"console-phone-{'dark' if dark else 'light'}")

    def test_a_device_is_found_by_its_name(self, site: ConsoleSite):
        site.browser.type("#find", "0003")
        visible = "[...document.querySelectorAll('#rows tr')].filter((row) => !row.hidden)"
        assert site.browser.run(f"return {visible}.map((row) => row.dataset.device)") == ["", THIRD]


class TestHostileNames:
    def test_markup_in_names_is_shown_as_text(self, site: ConsoleSite):
        site.lab.register(HOSTILE, model=HOSTILE)
        wait_until(lambda: HOSTILE in site.devices(), "the device")
        site.browser.run("document.querySelector('#rows tr:last-child button').scrollIntoView()")
        row = "[...document.querySelectorAll('#rows tr')].find((row) => row.dataset.device === arguments[0])"
        site.browser.run(f"{row}.querySelector('button').click()", HOSTILE)
        site.wait_for_text("#chosen-title", HOSTILE)
        site.browser.run("document.querySelectorAll('#documents details').forEach((part) => { part.open = true; })")
        assert HOSTILE in site.text("#documents")
        site.choose(FIRST)
        site.browser.type("#message-form [name=handler]", HOSTILE)
        site.do("message", "send")
        site.wait_for_event(HOSTILE)
        assert site.browser.run("return document.querySelectorAll('img').length") == 1  # the page's own
        assert site.browser.run("return document.title") == "orvel lab"
