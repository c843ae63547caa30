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

    def test_nothing_of_a_peer_runs(self):
        for number, text in hostile():
            with self.subTest(number):
                self.assertEqual(2, len(self.opened(text)))
                self.assertEqual('undefined', self.browser.execute_script('return typeof hit'))


if __name__ == '__main__':
    programs.main()
