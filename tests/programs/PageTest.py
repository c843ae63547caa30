#!/usr/bin/env python3
"""postwire-trace html before a real browser: PROGRAM_FOLDER [PICTURE], a file for one of the page."""
import sys

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

picture = sys.argv.pop(2) if len(sys.argv) > 2 else None
import programs
from TraceTest import demonstration, hostile

# The least contrast of a text with what is behind it, and what gave it.
CONTRAST = '''
const light = color => color.match(/[\\d.]+/g).slice(0, 3).map(c => c / 255)
    .map(c => c <= .04045 ? c / 12.92 : ((c + .055) / 1.055) ** 2.4)
    .reduce((sum, c, i) => sum + c * [.2126, .7152, .0722][i], 0);
const of = (node, name) => getComputedStyle(node)[name];
function behind(node) {
    while (node && of(node, 'backgroundColor') === 'rgba(0, 0, 0, 0)') node = node.parentElement;
    return node ? of(node, 'backgroundColor') : 'rgb(255, 255, 255)';
}
return [...document.querySelectorAll('body *')].filter(node => node.checkVisibility() &&
    [...node.childNodes].some(child => child.nodeType === 3 && child.data.trim())).map(node => {
        const two = [light(of(node, 'color')) + .05, light(behind(node)) + .05];
        return [Math.max(...two) / Math.min(...two), node.className || node.tagName];
    }).sort((a, b) => a[0] - b[0])[0];'''


class Page(programs.TestCase):
    def setUp(self):
        options = webdriver.ChromeOptions()
        for argument in '--headless=new', '--no-sandbox', '--window-size=1100,1060':
            options.add_argument(argument)
        options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
        self.browser = webdriver.Chrome(options=options, service=Service('/usr/bin/chromedriver'))
        self.addCleanup(self.browser.quit)

    def opened(self, content):
        """The messages of the page, which was opened without a word on the console."""
        path = self.file(content, 'soap.trace')
        page = path.with_name('page.html')
        self.assertEqual(0, self.run_program('postwire-trace', 'html', path, page).returncode)
        self.browser.get(page.as_uri())
        self.assertEqual([], self.browser.get_log('browser'))
        return self.browser.find_elements(By.CLASS_NAME, 'message')

    def test_messages_fold_and_are_found_and_faults_are_shown(self):
        messages = self.opened(demonstration())
        if picture:
            self.browser.save_screenshot(picture)
        inside = messages[1].find_element(By.CLASS_NAME, 'inside')
        for shown in False, True, False:
            self.assertEqual(shown, inside.is_displayed())
            messages[1].find_element(By.TAG_NAME, 'summary').send_keys(Keys.ENTER)
        self.assertGreater(int(messages[2].find_element(By.TAG_NAME, 'img').get_property(
            'naturalWidth')), 0)
        self.assertIn('bytes behind the end of message', messages[-1].text)
        box = self.browser.find_element(By.ID, 'search')
        box.send_keys('Picture@Example')
        self.assertEqual([False, False, True, False, False, False],
                         [message.is_displayed() for message in messages])
        self.assertIn('1 of 6 messages', self.browser.find_element(By.ID, 'found').text)
        self.assertIn('<name>Zo\xeb</name>', messages[2].text)
        box.send_keys(Keys.ESCAPE)
        self.assertTrue(all(message.is_displayed() for message in messages))

    def test_all_texts_are_legible_on_screens_light_and_dark_and_on_paper(self):
        self.opened(demonstration())
        seen = set()
        for media, scheme in ('screen', 'light'), ('screen', 'dark'), ('print', 'dark'):
            self.browser.execute_cdp_cmd('Emulation.setEmulatedMedia', {
                'media': media, 'features': [{'name': 'prefers-color-scheme', 'value': scheme}]})
            contrast, where = self.browser.execute_script(CONTRAST)
            self.assertGreater(contrast, 4.5, (media, scheme, where))  # WCAG 2, level AA
            seen.add(self.browser.find_element(By.TAG_NAME, 'body').value_of_css_property('color'))
            self.assertEqual(media == 'screen', self.browser.find_element(
                By.ID, 'tools').is_displayed())
        self.assertEqual(2, len(seen))

    def open_ones(self):
        return self.browser.execute_script(
            "return [...document.querySelectorAll('details')].map(d => d.open)")

    def test_printing_opens_what_is_closed_for_as_long_as_it_takes(self):
        self.opened(demonstration())
        before = self.open_ones()
        self.browser.execute_script("addEventListener('beforeprint', () => { printed = "
                                    "document.querySelectorAll('details:not([open])').length; })")
        self.browser.print_page()
        self.assertEqual(0, self.browser.execute_script('return printed'))
        self.assertEqual(before, self.open_ones())
        self.assertIn(False, before)

    def test_keys_alone_reach_all(self):
        messages = self.opened(demonstration())
        for keys, at in ('j', 1), ('jjjjjjjj', 6), ('k', 5), ('kk', 3), ('kkkkk', 1):
            webdriver.ActionChains(self.browser).send_keys(keys).perform()
            focused = self.browser.switch_to.active_element
            self.assertEqual(messages[at - 1], focused.find_element(By.XPATH, './../..'))
            self.assertGreaterEqual(focused.rect['y'] - self.browser.execute_script(
                'return scrollY'), self.browser.find_element(By.TAG_NAME, 'header').rect['height'])
        open_ = self.open_ones()[0]
        webdriver.ActionChains(self.browser).send_keys(Keys.SPACE).perform()
        self.assertEqual(not open_, self.open_ones()[0])
        webdriver.ActionChains(self.browser).send_keys('/picture@').perform()
        self.assertEqual([messages[2]], [m for m in messages if m.is_displayed()])
        webdriver.ActionChains(self.browser).send_keys(Keys.TAB * 3, Keys.ENTER).perform()
        self.assertEqual(messages[2], self.browser.switch_to.active_element.find_element(
            By.XPATH, './../..'))

    def test_nothing_of_a_peer_runs(self):
        for number, text in hostile():
            with self.subTest(number):
                self.assertEqual(2, len(self.opened(text)))
                self.assertEqual('undefined', self.browser.execute_script('return typeof hit'))


if __name__ == '__main__':
    programs.main()
